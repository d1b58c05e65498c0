#include "configuration.h"
#include "http_client.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <syscall.h>
#include <unistd.h>

/*
 * Process 1 of a machine whose power fails: a user-mode Linux with an ext4 file system below /data.
 * Judges what the last power failure left, then sends requests to the service until the next one.
 * Says on its console, line by line, what power_loss.py has to know; see there.
 */

namespace {

constexpr const char *root = "/run/gateway";
constexpr const char *persistent = "/run/gateway/data/config/kt-can-proprietary/can_proprietary.db";
constexpr const char *working = "/run/gateway/run/config/kt-can-proprietary/can_proprietary.db";
constexpr const char *schema_folder = "/run/gateway/etc/default/config/kt-can-proprietary";
constexpr const char *address_file = "/run/gateway/run/kt-rest/CAN-proprietary.address";
constexpr const char *log_file = "/run/gateway/log";

void say(const std::string &line) {
    const std::string text = line + "\n";
    (void)!write(STDOUT_FILENO, text.data(), text.size()); // the console goes straight to the host
}

std::string setting(const char *name) {
    const char *text = getenv(name);
    return text == nullptr ? "" : text;
}

void check(bool done, const std::string &what) {
    expect(done, what + ": " + strerror(errno));
}

std::string words_of(const content &holds) {
    std::string text = std::to_string(holds.imported) + ":" + std::to_string(holds.extras);
    for (uint32_t i = 0; i < holds.extras; i++) {
        const extra_device &device = holds.extra[i];
        text += ":" + std::to_string(device.id) + ":" + std::to_string(device.name) + ":" +
                std::to_string(device.frames);
    }
    return text;
}

content content_from(const std::string &words) {
    content holds{};
    const char *at = words.c_str();
    const auto next = [&at] {
        char *end = nullptr;
        const auto value = static_cast<uint32_t>(strtoul(at, &end, 10));
        at = *end == ':' ? end + 1 : end;
        return value;
    };
    holds.imported = next();
    holds.extras = next();
    for (uint32_t i = 0; i < holds.extras && i < most_extras; i++) {
        holds.extra[i].id = next();
        holds.extra[i].name = next();
        holds.extra[i].frames = next();
    }
    return holds;
}

void load_module(const std::string &name) {
    utsname kernel{};
    (void)uname(&kernel); // cannot fail
    const std::string path =
        std::string("/usr/lib/uml/modules/") + kernel.release + "/kernel/" + name + ".ko";
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    check(file >= 0 && syscall(SYS_finit_module, file, "", 0) == 0, path);
    (void)close(file); // loaded
}

void run(const std::string &command) {
    expect(system(command.c_str()) == 0, command + " fails");
}

void bring_up_network() {
    for (const char *name : {"net/can/can",
                             "net/can/can-raw",
                             "drivers/net/can/dev/can-dev",
                             "drivers/net/can/vcan"}) {
        load_module(name);
    }
    run("ip link set lo up");
    for (const std::string port : {"can0", "can1"}) {
        run("ip link add dev " + port + " type vcan && ip link set up " + port);
    }
}

void mount_all() {
    check(mount("proc", "/proc", "proc", 0, nullptr) == 0, "/proc");
    check(mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0, "/run");
    check(mknod("/run/disk", S_IFBLK | 0600, makedev(98, 0)) == 0, "disk");
    std::filesystem::create_directories(schema_folder);
    const std::string data = std::string(root) + "/data";
    std::filesystem::create_directories(data);
    check(mount("/run/disk", data.c_str(), "ext4", 0, nullptr) == 0, "/data");
}

/** The schema that this boot's software comes with; its number makes it another one. */
void ship_schema() {
    std::ofstream file(std::string(schema_folder) + "/can_proprietary.sql", std::ios::binary);
    const std::string number = setting("KT_SCHEMA_NUMBER");
    file << std::ifstream(setting("KT_SCHEMA"), std::ios::binary).rdbuf() << "-- " << number << "\n"
         << (atoi(number.c_str()) % 2 == 0 ? "" : "CREATE TABLE added (x);\n");
}

pid_t start_service() {
    const std::string program = setting("KT_SERVICE");
    const pid_t child = fork();
    if (child == 0) {
        const int log = open(log_file, O_WRONLY | O_CREAT | O_APPEND, 0600);
        (void)dup2(log, STDERR_FILENO);
        (void)dup2(log, STDOUT_FILENO);
        (void)setenv("KT_ROOT", root, 1);
        (void)setenv("KT_CAN_PORTS", "can0,can1", 1);
        (void)setenv("KT_REST_LISTEN", "127.0.0.1:0", 1);
        (void)execl(program.c_str(), program.c_str(), nullptr);
        _exit(127);
    }
    return child;
}

/** @return the port that it listens on */
int wait_ready(pid_t service) {
    const step overview{"GET", "/overview", "", 200, {}};
    for (int port = 0;;) {
        int status = 0;
        const bool lives = waitpid(service, &status, WNOHANG) == 0;
        expect(lives, "the service ends with status " + std::to_string(WEXITSTATUS(status)));
        std::string address;
        std::getline(std::ifstream(address_file) >> std::ws, address);
        const size_t colon = address.rfind(':');
        port = colon == std::string::npos ? 0 : atoi(address.c_str() + colon + 1);
        // It listens before the databases stand.
        if (port > 0 && std::filesystem::exists(working) &&
            send_request(port, overview) == overview.done) {
            return port;
        }
        (void)usleep(2000); // looked again
    }
}

/** The configuration that this start came up with, one of those that the last one may have left. */
configuration judge() {
    const content now = content_from(setting("KT_NOW"));
    const content may = content_from(setting("KT_MAY"));
    const std::string rows = rows_in(persistent, "/run/read.db");
    const bool kept = rows == rows_of(now);
    expect(kept || rows == rows_of(may),
           "neither " + brief(now) + " nor " + brief(may) + " but\n" + rows);
    expect(rows_in(working, "/run/read.db") == rows, "the working copy is another one");
    const bool same = rows_of(now) == rows_of(may);
    say(std::string("whole ") + (same ? "only" : kept ? "old" : "new"));
    const content holds = kept ? now : may;
    return {
        static_cast<uint32_t>(strtoul(setting("KT_COUNTER").c_str(), nullptr, 10)), holds, holds};
}

const char *name_of(const step &wanted) {
    if (wanted.path == "/action") {
        return wanted.body.find('0') != std::string::npos ? "apply" : "discard";
    }
    return wanted.path == "/config-file" ? "import" : "edit";
}

[[noreturn]] void change_on(int port, configuration now, dice &random) {
    for (;;) {
        const step wanted = next_step(random, now);
        say(std::string("may ") + words_of(wanted.after.persistent) + " " +
            std::to_string(wanted.after.counter) + " " + name_of(wanted));
        const int status = send_request(port, wanted);
        expect(status == wanted.done,
               std::string(wanted.method) + " " + wanted.path + " answers " +
                   std::to_string(status));
        now = wanted.after;
        say("now " + words_of(now.persistent));
    }
}

[[noreturn]] void live() {
    mount_all();
    bring_up_network();
    ship_schema();
    dice random(strtoull(setting("KT_SEED").c_str(), nullptr, 10));
    say("mounted");
    const int port = wait_ready(start_service());
    say("ready");
    const configuration now = judge();
    say("now " + words_of(now.persistent));
    change_on(port, now, random);
}

} // namespace

int main() {
    if (getpid() != 1) {
        (void)fprintf(stderr, "power_guest is for power_loss.py only\n");
        return 2;
    }
    try {
        live();
    } catch (const std::exception &finding) {
        say(std::string("finding ") + finding.what());
        std::string line;
        for (std::ifstream log(log_file); std::getline(log, line);) {
            say("log " + line);
        }
    }
    say("end");
    (void)reboot(RB_POWER_OFF); // nothing can be done when it fails
    return 0;
}
