-- A configuration that fits kt-demo-device: drive and sensor on port 1, legacy on port 2. It goes
-- into a database that has its port rows; on a gateway with one port the second device stays out.
PRAGMA foreign_keys = ON;
BEGIN;

INSERT INTO device (deviceName, portId)
SELECT column1, column2 FROM (VALUES ('drive', 1), ('sensor', 1), ('legacy', 2))
WHERE column2 IN (SELECT portId FROM interface_setting);

-- A request at bootup would keep its port polling for good, so the drive is asked now and then.
INSERT INTO transactions (deviceId, transactionName, transactionType, triggerMode, cyclicInterval,
                          responseTimeout, timeoutRetry)
SELECT deviceId, column2, 2, 0, column3, 100, 1 FROM (VALUES
    ('drive', 'identify', 5000),
    ('drive', 'control', 200))
JOIN device ON deviceName = column1;

INSERT INTO transactions (deviceId, transactionName, transactionType, consumeToutEnable,
                          consumeTimeout)
SELECT deviceId, column2, 1, 1, column3 FROM (VALUES
    ('sensor', 'climate', 1000),
    ('sensor', 'samples', 3000),
    ('legacy', 'acknowledge', 3000))
JOIN device ON deviceName = column1;

INSERT INTO transactions (deviceId, transactionName, transactionType, triggerMode, cyclicInterval,
                          triggerByRTR)
SELECT deviceId, column2, 0, column3, 60000, column4 FROM (VALUES
    ('legacy', 'setpoint', 0, 1),
    ('legacy', 'command', 1, 0))
JOIN device ON deviceName = column1;

INSERT INTO frame (transactionId, canId, dataLength, frameType)
SELECT transactionId, column2, column3, column4 FROM (VALUES
    ('identify', 0x601, 1, 2),
    ('identify', 0x581, 8, 3),
    ('control', 0x201, 4, 2),
    ('control', 0x181, 8, 3),
    ('climate', 0x281, 8, 1),
    ('samples', 0x282, 8, 1),
    ('setpoint', 0x321, 4, 0),
    ('command', 0x331, 2, 0),
    ('acknowledge', 0x3A1, 4, 1))
JOIN transactions ON transactionName = column1;

INSERT INTO block (frameId, blockType, startOffset, constantName, constantSize, constantValue)
SELECT frameId, 1, column2, column3, column4, column5 FROM (VALUES
    (0x601, 0, 'ask', 1, '40'),
    (0x581, 0, 'answer', 1, '43'),
    (0x201, 0, 'ask', 1, 'A5'),
    (0x181, 0, 'answer', 1, '5A'),
    (0x281, 7, 'mark', 1, 'C3'),
    (0x321, 2, 'mark', 2, 'BEEF'))
JOIN frame ON canId = column1;

-- tagType: 2 signed 16 bit, 5 unsigned 8 bit, 6 unsigned 16 bit, 7 unsigned 32 bit, 9 float.
-- swap: 1 exchanges the bytes of a pair, 3 reverses a group of four, for big-endian numbers.
INSERT INTO block (frameId, blockType, startOffset, tagName, tagType, tagSize, access, swap)
SELECT frameId, 0, column2, column3, column4, column5, column6, column7 FROM (VALUES
    (0x581, 4, 'serial', 7, 4, 'ro', 0),
    (0x201, 1, 'command', 5, 1, 'wo', 0),
    (0x201, 2, 'target', 2, 2, 'wo', 0),
    (0x181, 1, 'counter', 5, 1, 'ro', 0),
    (0x181, 3, 'status', 5, 1, 'ro', 0),
    (0x181, 4, 'speed', 2, 2, 'ro', 0),
    (0x281, 0, 'temperature', 9, 4, 'ro', 0),
    (0x281, 4, 'pressure', 6, 2, 'ro', 1),
    (0x281, 6, 'humidity', 5, 1, 'ro', 0),
    (0x282, 0, 'number', 7, 4, 'ro', 3),
    (0x321, 0, 'value', 6, 2, 'wo', 0),
    (0x331, 0, 'code', 6, 2, 'wo', 0),
    (0x3A1, 0, 'answers', 5, 1, 'ro', 0),
    (0x3A1, 1, 'commands', 5, 1, 'ro', 0),
    (0x3A1, 2, 'last', 6, 2, 'ro', 0))
JOIN frame ON canId = column1;

-- 0.1 hPa on the bus, hPa in the tag. The two methods of scaling share their first two numbers.
UPDATE block SET scalingFunc = 1, interceptSlope = 0.1, interceptOffset = 0, pointSourceMin = 0.1,
                 pointSourceMax = 0
WHERE tagName = 'pressure';

COMMIT;
