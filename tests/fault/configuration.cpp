#include "configuration.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sqlite3.h>
#include <vector>

namespace {

uint32_t imported_devices(const content &holds) {
    return holds.imported == 0 ? 0 : 1 + holds.imported % 8;
}

uint32_t next_id(const content &holds) {
    uint32_t last = imported_devices(holds);
    for (uint32_t i = 0; i < holds.extras; i++) {
        last = std::max(last, holds.extra[i].id);
    }
    return last + 1;
}

std::string number(uint32_t value) {
    return std::to_string(value);
}

/** Below those of the devices that requests make. */
uint32_t imported_can_id(uint32_t file, uint32_t device) {
    return 0x100 + file % 64 * 8 + device;
}

uint32_t extra_can_id(uint32_t frames) {
    return 0x400 + frames % 0x300;
}

std::string block_line(uint32_t file, uint32_t device, uint32_t block) {
    return number(2 * device + block - 2) + "," + number(device) + ",0," + number(2 * block) +
           ",f" + number(file) + "b" + number(block) + ",6,2,ro,0,,0,,,,,,,,,\n";
}

std::string file_text(uint32_t file) {
    const content holds{file, 0, {}};
    std::string devices;
    std::string transactions;
    std::string frames;
    std::string blocks;
    for (uint32_t i = 1; i <= imported_devices(holds); i++) {
        const std::string id = number(i);
        std::array<char, 16> can_id{};
        (void)snprintf(can_id.data(), can_id.size(), "%X", imported_can_id(file, i));
        devices += id + "," + number(1 + i % 2) + ",f" + number(file) + "d" + id + "\n";
        transactions += id + "," + id + ",1,f" + number(file) + "t,1,,,,,,0,,,\n";
        frames += id + "," + id + "," + can_id.data() + ",8,1\n";
        blocks += block_line(file, i, 1) + block_line(file, i, 2);
    }
    return "version: 1.0.0\n\n[interface-setting]\n"
           "portId,frameFormat,baudrate,initialDelay,busOffReset,resistor\n"
           "1,0,3,0,0,0\n2,0,3,0,0,0\n\n[device]\ndeviceId,portId,deviceName\n" +
           devices +
           "\n[transactions]\ntransactionId,deviceId,transactionEnable,transactionName,"
           "transactionType,triggerMode,cyclicInterval,fpFunc,fpTimeout,triggerByRTR,"
           "consumeToutEnable,consumeTimeout,timeoutRetry,responseTimeout\n" +
           transactions + "\n[frame]\nframeId,transactionId,canId,dataLength,frameType\n" + frames +
           "\n[block]\nblockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,"
           "fpData,scalingFunc,interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,"
           "pointTargetMin,pointTargetMax,constantName,constantSize,constantValue\n" +
           blocks + "\n";
}

std::string multipart(const std::string &file) {
    const std::string line = std::string("--") + import_boundary;
    return line + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"c.csv\"\r\n\r\n" +
           file + "\r\n" + line + "--\r\n";
}

std::string frame_list(uint32_t frames) {
    std::string blocks;
    for (uint32_t block = 1; block <= 2; block++) {
        blocks += (block == 1 ? "" : ",") + (R"({"blockType":0,"tagName":"y)" + number(frames)) +
                  "b" + number(block) +
                  R"(","tagType":6,"tagSize":2,"access":"ro","startOffset":)" + number(2 * block) +
                  R"(,"swap":0,"scalingFunc":0})";
    }
    return R"("frameList":[{"canId":)" + number(extra_can_id(frames)) +
           R"(,"dataLength":8,"blockList":[)" + blocks + "]}]";
}

step import_step(const configuration &now) {
    step made{"POST", "/config-file", multipart(file_text(now.counter + 1)), 201, now};
    made.after.working = {++made.after.counter, 0, {}};
    return made;
}

step add_step(const configuration &now) {
    configuration after = now;
    const uint32_t fresh = ++after.counter;
    after.working.extra[after.working.extras++] = {next_id(now.working), fresh, fresh};
    return {"POST",
            "/device",
            R"({"portId":1,"deviceName":"x)" + number(fresh) +
                R"(","transactionList":[{"transactionEnable":true,"transactionName":"x",)"
                R"("transactionType":1,"consumeToutEnable":false,)" +
                frame_list(fresh) + "}]}",
            201,
            after};
}

step rename_step(const configuration &now, uint32_t which) {
    configuration after = now;
    extra_device &device = after.working.extra[which];
    device.name = ++after.counter;
    return {"PATCH",
            "/device/" + number(device.id),
            R"({"deviceName":"x)" + number(device.name) + "\"}",
            200,
            after};
}

step frames_step(const configuration &now, uint32_t which) {
    configuration after = now;
    extra_device &device = after.working.extra[which];
    device.frames = ++after.counter;
    return {
        "PUT", "/frame/" + number(device.id), "{" + frame_list(device.frames) + "}", 200, after};
}

step delete_step(const configuration &now, uint32_t which) {
    configuration after = now;
    content &holds = after.working;
    const uint32_t id = holds.extra[which].id;
    std::move(holds.extra.begin() + which + 1,
              holds.extra.begin() + holds.extras,
              holds.extra.begin() + which);
    holds.extras--;
    return {"DELETE", "/device/" + number(id), "", 204, after};
}

step action_step(const configuration &now, bool apply) {
    configuration after = now;
    (apply ? after.persistent : after.working) = apply ? now.working : now.persistent;
    return {"POST", "/action", apply ? R"({"option":0})" : R"({"option":1})", 201, after};
}

using db_owner = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;

bool copy_file(const std::string &from, const std::string &to) {
    std::ifstream source(from, std::ios::binary);
    if (!source) {
        return false;
    }
    std::ofstream target(to, std::ios::binary | std::ios::trunc);
    if (source.peek() != std::ifstream::traits_type::eof()) {
        target << source.rdbuf();
    }
    return static_cast<bool>(target.flush());
}

std::string answer_of(sqlite3 *db, const char *sql) {
    std::string text;
    const auto collect = [](void *to, int count, char **values, char ** /*names*/) {
        for (int i = 0; i < count; i++) {
            static_cast<std::string *>(to)
                ->append(i == 0 ? "" : " ")
                .append(values[i] == nullptr ? "NULL" : values[i]);
        }
        static_cast<std::string *>(to)->append("\n");
        return 0;
    };
    char *message = nullptr;
    (void)sqlite3_exec(db, sql, collect, &text, &message); // the message says it
    if (message != nullptr) {
        text += std::string("error: ") + message + "\n";
        sqlite3_free(message);
    }
    return text;
}

constexpr std::array questions = {
    "PRAGMA integrity_check",
    "PRAGMA foreign_key_check",
    "SELECT count(*) FROM interface_setting",
    "SELECT deviceId, deviceName, portId, transactionId, transactionName, canId, startOffset,"
    " tagName FROM device LEFT JOIN transactions USING (deviceId) LEFT JOIN frame"
    " USING (transactionId) LEFT JOIN block USING (frameId) ORDER BY deviceId, startOffset"};

std::string row(uint32_t id,
                const std::string &device,
                uint32_t port,
                const std::string &transaction,
                uint32_t can_id,
                uint32_t block,
                const std::string &tag) {
    return number(id) + " " + device + " " + number(port) + " " + number(id) + " " + transaction +
           " " + number(can_id) + " " + number(2 * block) + " " + tag + number(block) + "\n";
}

} // namespace

step next_step(dice &random, const configuration &now) {
    const uint64_t roll = random.below(100);
    const uint32_t extras = now.working.extras;
    if (roll < 25) {
        return import_step(now);
    }
    if (roll < 60) {
        return action_step(now, roll < 48);
    }
    if (extras == 0 || (roll < 75 && extras < most_extras)) {
        return add_step(now);
    }
    const auto which = static_cast<uint32_t>(random.below(extras));
    if (roll < 83) {
        return rename_step(now, which);
    }
    return roll < 91 ? frames_step(now, which) : delete_step(now, which);
}

std::string rows_of(const content &holds) {
    std::string text = "ok\n2\n";
    const std::string file = "f" + number(holds.imported);
    for (uint32_t i = 1; i <= imported_devices(holds); i++) {
        for (uint32_t block = 1; block <= 2; block++) {
            text += row(i,
                        file + "d" + number(i),
                        1 + i % 2,
                        file + "t",
                        imported_can_id(holds.imported, i),
                        block,
                        file + "b");
        }
    }
    for (uint32_t i = 0; i < holds.extras; i++) {
        const extra_device &device = holds.extra[i];
        for (uint32_t block = 1; block <= 2; block++) {
            text += row(device.id,
                        "x" + number(device.name),
                        1,
                        "x",
                        extra_can_id(device.frames),
                        block,
                        "y" + number(device.frames) + "b");
        }
    }
    return text;
}

std::string rows_in(const std::string &database, const std::string &scratch) {
    (void)remove((scratch + "-journal").c_str()); // most often not there
    if (!copy_file(database, scratch)) {
        return "no file\n";
    }
    (void)copy_file(database + "-journal", scratch + "-journal"); // likewise
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(scratch.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    const db_owner db(opened, sqlite3_close);
    if (result != SQLITE_OK) {
        return "cannot be opened\n";
    }
    std::string text;
    for (const char *question : questions) {
        text += answer_of(opened, question);
    }
    return text;
}

std::string brief(const content &holds) {
    std::string text = number(holds.imported);
    for (uint32_t i = 0; i < holds.extras; i++) {
        text += " +x" + number(holds.extra[i].name) + "/" + number(holds.extra[i].frames);
    }
    return text;
}
