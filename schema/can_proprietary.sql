-- Configuration of the CAN ports, their devices, transactions, frames and blocks.
--
-- Column order is binding: rows are read by position and imported whole. A change of this text makes
-- the next start migrate: rows are carried over by column name, keys kept.
--
-- CHECKs refuse only what the record fields cannot hold (keys and 8- or 16-bit fields would be cut
-- and a cut key would name another row) and CAN identifiers beyond 29 bits, which no frame carries.
-- Codes that have no meaning (a baudrate of 9, an unknown blockType) are not their business: each
-- reader of a code says what it does with them. A constraint is named after its column because
-- the name is what an import reports.

CREATE TABLE interface_setting (
    portId INTEGER PRIMARY KEY CONSTRAINT portId CHECK (portId BETWEEN 0 AND 255),
    frameFormat INTEGER NOT NULL DEFAULT 0,
    baudrate INTEGER NOT NULL DEFAULT 3,
    initialDelay INTEGER NOT NULL DEFAULT 0,
    busOffReset INTEGER NOT NULL DEFAULT 0,
    resistor INTEGER NOT NULL DEFAULT 0
);

CREATE TABLE device (
    deviceId INTEGER PRIMARY KEY CONSTRAINT deviceId CHECK (deviceId BETWEEN 0 AND 255),
    portId INTEGER NOT NULL REFERENCES interface_setting (portId) ON DELETE CASCADE,
    deviceName TEXT NOT NULL
);

CREATE TABLE transactions (
    transactionId INTEGER PRIMARY KEY
        CONSTRAINT transactionId CHECK (transactionId BETWEEN 0 AND 65535),
    deviceId INTEGER NOT NULL REFERENCES device (deviceId) ON DELETE CASCADE,
    transactionEnable INTEGER NOT NULL DEFAULT 1
        CONSTRAINT transactionEnable CHECK (transactionEnable BETWEEN 0 AND 255),
    transactionName TEXT,
    transactionType INTEGER NOT NULL DEFAULT 0
        CONSTRAINT transactionType CHECK (transactionType BETWEEN 0 AND 255),
    triggerMode INTEGER NOT NULL DEFAULT 0
        CONSTRAINT triggerMode CHECK (triggerMode BETWEEN 0 AND 255),
    cyclicInterval INTEGER NOT NULL DEFAULT 1000
        CONSTRAINT cyclicInterval CHECK (cyclicInterval BETWEEN -2147483648 AND 2147483647),
    fpFunc INTEGER NOT NULL DEFAULT 0 CONSTRAINT fpFunc CHECK (fpFunc BETWEEN 0 AND 255),
    fpTimeout INTEGER NOT NULL DEFAULT 10000
        CONSTRAINT fpTimeout CHECK (fpTimeout BETWEEN 0 AND 65535),
    triggerByRTR INTEGER NOT NULL DEFAULT 0
        CONSTRAINT triggerByRTR CHECK (triggerByRTR BETWEEN 0 AND 255),
    consumeToutEnable INTEGER NOT NULL DEFAULT 0
        CONSTRAINT consumeToutEnable CHECK (consumeToutEnable BETWEEN 0 AND 255),
    consumeTimeout INTEGER NOT NULL DEFAULT 10000
        CONSTRAINT consumeTimeout CHECK (consumeTimeout BETWEEN 0 AND 65535),
    timeoutRetry INTEGER NOT NULL DEFAULT 0
        CONSTRAINT timeoutRetry CHECK (timeoutRetry BETWEEN 0 AND 255),
    responseTimeout INTEGER NOT NULL DEFAULT 1000
        CONSTRAINT responseTimeout CHECK (responseTimeout BETWEEN -2147483648 AND 2147483647)
);

CREATE TABLE frame (
    frameId INTEGER PRIMARY KEY CONSTRAINT frameId CHECK (frameId BETWEEN 0 AND 65535),
    transactionId INTEGER NOT NULL REFERENCES transactions (transactionId) ON DELETE CASCADE,
    canId INTEGER NOT NULL DEFAULT 0 CONSTRAINT canId CHECK (canId BETWEEN 0 AND 0x1FFFFFFF),
    dataLength INTEGER NOT NULL DEFAULT 0
        CONSTRAINT dataLength CHECK (dataLength BETWEEN 0 AND 255),
    frameType INTEGER NOT NULL DEFAULT 0
        CONSTRAINT frameType CHECK (frameType BETWEEN 0 AND 255)
);

CREATE TABLE block (
    blockId INTEGER PRIMARY KEY CONSTRAINT blockId CHECK (blockId BETWEEN 0 AND 65535),
    frameId INTEGER NOT NULL REFERENCES frame (frameId) ON DELETE CASCADE,
    blockType INTEGER NOT NULL DEFAULT 0
        CONSTRAINT blockType CHECK (blockType BETWEEN 0 AND 255),
    startOffset INTEGER NOT NULL DEFAULT 0
        CONSTRAINT startOffset CHECK (startOffset BETWEEN 0 AND 255),
    tagName TEXT DEFAULT 'tag',
    tagType INTEGER DEFAULT 13 CONSTRAINT tagType CHECK (tagType BETWEEN 0 AND 255),
    tagSize INTEGER DEFAULT 1 CONSTRAINT tagSize CHECK (tagSize BETWEEN 0 AND 255),
    access TEXT DEFAULT 'ro',
    swap INTEGER DEFAULT 0 CONSTRAINT swap CHECK (swap BETWEEN 0 AND 255),
    fpData TEXT DEFAULT '',
    scalingFunc INTEGER DEFAULT 0
        CONSTRAINT scalingFunc CHECK (scalingFunc BETWEEN 0 AND 255),
    interceptSlope REAL DEFAULT 1,
    interceptOffset REAL DEFAULT 0,
    pointSourceMin REAL DEFAULT 0,
    pointSourceMax REAL DEFAULT 1,
    pointTargetMin REAL DEFAULT 0,
    pointTargetMax REAL DEFAULT 1,
    constantName TEXT DEFAULT 'constantName',
    constantSize INTEGER DEFAULT 1
        CONSTRAINT constantSize CHECK (constantSize BETWEEN 0 AND 255),
    constantValue TEXT DEFAULT ''
);

-- Every step down the tree looks its children up by the parent's key, and so does a cascade.
CREATE INDEX device_portId ON device (portId);
CREATE INDEX transactions_deviceId ON transactions (deviceId);
CREATE INDEX frame_transactionId ON frame (transactionId);
CREATE INDEX block_frameId ON block (frameId);

-- The conflict check before an apply compares every frame with all others of its CAN identifier.
CREATE INDEX frame_canId ON frame (canId);

-- 255 devices: their count and their key are 8-bit fields.
CREATE TRIGGER device_is_full BEFORE INSERT ON device
WHEN (SELECT COUNT(*) FROM device) >= 255
BEGIN
    SELECT RAISE(ABORT, 'device is full');
END;

-- 512 transactions: a port has 256 diagnostic slots and the gateways have two ports. The sum is
-- bounded rather than each port, so that one busy port can take more than its half; what exceeds a port's
-- slots still runs and reports into its first slot.
CREATE TRIGGER transactions_is_full BEFORE INSERT ON transactions
WHEN (SELECT COUNT(*) FROM transactions) >= 512
BEGIN
    SELECT RAISE(ABORT, 'transactions is full');
END;
