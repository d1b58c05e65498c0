#include "commands.h"
#include "hub.h"
#include "world.h"
#include "worlds.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace softcan {
namespace {

namespace fs = std::filesystem;

struct launch_options {
    std::string ports;
    std::string world;
    bool up;
    arguments command;
};

launch_options read_options(const program::command_line &line) {
    const std::string *ports = line.value("--ports");
    return {ports == nullptr ? "can0,can1" : *ports,
            value_or_none(line, "--world"),
            line.has("--up"),
            {line.words.begin() + 1, line.words.end()}};
}

fs::path own_folder() {
    return fs::read_symlink("/proc/self/exe").parent_path();
}

// The library stands beside the program or in the lib folder beside bin, installed with the shim.
std::string find_library() {
    const fs::path lib = own_folder() / ".." / "lib";
    for (const fs::path &folder : {lib, lib / "kt-softcan", own_folder()}) {
        const fs::path file = folder / "libkt-softcan.so";
        if (fs::exists(file)) {
            return fs::canonical(file).string();
        }
    }
    return {};
}

std::string find_shim_folder() {
    const fs::path folder = own_folder() / ".." / "lib" / "kt-softcan";
    return fs::exists(folder / "ip") ? fs::canonical(folder).string() : std::string();
}

void put_first(const char *variable, const std::string &entry) {
    const char *before = getenv(variable);
    std::string value = entry;
    const std::string rest = before == nullptr ? "" : before;
    if (!rest.empty() && rest != entry && !rest.starts_with(entry + ":")) {
        value += ":" + rest;
    } else if (!rest.empty()) {
        value = rest;
    }
    (void)setenv(variable, value.c_str(), 1); // fails only without memory, then exec does too
}

bool enter_environment(const std::string &path, const std::string &ports, std::string *problem) {
    const std::string library = find_library();
    const std::string shims = find_shim_folder();
    if (library.empty() || shims.empty()) {
        *problem = "libkt-softcan.so or the folder of the ip command is missing beside " +
                   own_folder().string();
        return false;
    }
    put_first("LD_PRELOAD", library);
    put_first("PATH", shims);
    (void)setenv("KT_SOFTCAN", path.c_str(), 1);
    (void)setenv("KT_CAN_PORTS", ports.c_str(), 0);
    return true;
}

int exec_status(int error) {
    return error == ENOENT ? 127 : 126;
}

[[noreturn]] void exec_command(const arguments &command) {
    std::vector<char *> words;
    for (const std::string &word : command) {
        words.push_back(const_cast<char *>(word.c_str()));
    }
    words.push_back(nullptr);
    (void)execvp(words[0], words.data());
    const int error = errno;
    _exit(complain(exec_status(error),
                   std::string("cannot run ") + words[0] + ": " + strerror(error)));
}

world_region *create_region(int *fd) {
    *fd = memfd_create("kt-softcan", MFD_CLOEXEC);
    if (*fd < 0 || ftruncate(*fd, sizeof(world_region)) != 0) {
        return nullptr;
    }
    void *memory = mmap(nullptr, sizeof(world_region), PROT_READ | PROT_WRITE, MAP_SHARED, *fd, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto *region = static_cast<world_region *>(memory);
    region->magic = protocol_magic;
    region->version = protocol_version;
    return region;
}

bool fill_region(world_region *region, const arguments &ports, bool up) {
    hub seed;
    seed.region = region;
    for (const std::string &name : ports) {
        if (add_port(seed, name) != 0) {
            return false;
        }
        port_record *port = find_port(region, name);
        port->up = up ? 1 : 0;
        if (up) {
            port->state = static_cast<std::uint32_t>(bus_state::error_active);
        }
    }
    return true;
}

void raise_fd_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit); // fewer sockets then
    }
}

// The hub is out of reach of the terminal's signals; the lifeline tells it when to end.
pid_t start_hub(const hub_setup &setup, int lifeline_end) {
    const pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    (void)setpgid(0, 0);
    (void)close(lifeline_end);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    (void)dup2(null, STDIN_FILENO);
    (void)dup2(null, STDOUT_FILENO);
    raise_fd_limit();
    _exit(hub_run(setup));
}

pid_t start_command(const arguments &command, const sigset_t &signals) {
    const pid_t launcher = getpid();
    const pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != launcher) {
        _exit(status_launcher); // it was killed before it could be watched
    }
    (void)sigprocmask(SIG_SETMASK, &signals, nullptr);
    exec_command(command);
}

int exit_status(int state) {
    return WIFSIGNALED(state) ? 128 + WTERMSIG(state) : WEXITSTATUS(state);
}

sigset_t watched_signals() {
    sigset_t set;
    (void)sigemptyset(&set);
    for (const int number : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) {
        (void)sigaddset(&set, number);
    }
    return set;
}

// Wait for COMMAND; signals sent to the launcher go on to it.
int supervise(pid_t command, pid_t hub) {
    const sigset_t set = watched_signals();
    for (;;) {
        siginfo_t info{};
        const int number = sigwaitinfo(&set, &info);
        if (number > 0 && number != SIGCHLD) {
            // The terminal's own signals reach the whole process group.
            if (info.si_code != SI_KERNEL) {
                (void)kill(command, number);
            }
            continue;
        }
        int state = 0;
        if (waitpid(command, &state, WNOHANG) == command) {
            return exit_status(state);
        }
        if (hub > 0 && waitpid(hub, nullptr, WNOHANG) == hub) {
            (void)complain(0, "the hub has ended, the ports are gone");
            hub = -1;
        }
    }
}

int run_world(const launch_options &options, const arguments &ports) {
    hub_setup setup;
    std::string problem;
    setup.region = create_region(&setup.region_fd);
    if (setup.region == nullptr || !fill_region(setup.region, ports, options.up)) {
        return complain(status_launcher, "cannot create the world's memory");
    }
    int lifeline[2];
    if (pipe2(lifeline, O_CLOEXEC) != 0) {
        return complain(status_launcher, std::string("pipe: ") + strerror(errno));
    }
    setup.lifeline = lifeline[0];
    setup.listener = create_world(options.world, &setup.path, &problem);
    if (setup.listener < 0) {
        return complain(status_launcher, problem);
    }
    (void)signal(SIGCHLD, SIG_DFL); // an inherited SIG_IGN would leave nothing to wait for
    const sigset_t watched = watched_signals();
    sigset_t before;
    (void)sigprocmask(SIG_BLOCK, &watched, &before); // cannot fail with a valid set
    const pid_t hub = start_hub(setup, lifeline[1]);
    (void)close(setup.listener);
    (void)close(lifeline[0]);
    int status = status_launcher;
    pid_t command = -1;
    if (hub < 0 || !enter_environment(setup.path, options.ports, &problem)) {
        status = complain(status_launcher, problem.empty() ? "cannot start the hub" : problem);
    } else if ((command = start_command(options.command, before)) < 0) {
        status = complain(status_launcher, std::string("fork: ") + strerror(errno));
    } else {
        status = supervise(command, hub);
    }
    (void)close(lifeline[1]);
    if (hub > 0) {
        (void)waitpid(hub, nullptr, 0); // fails when supervise() has seen it end
    }
    return status;
}

std::string port_list(world_region *region) {
    std::vector<const port_record *> present;
    for (const port_record &port : region->ports) {
        if (port.ifindex != 0) {
            present.push_back(&port);
        }
    }
    std::string list;
    for (const port_record *port : present) {
        list += (list.empty() ? "" : ",") + std::string(port->name);
    }
    return list;
}

} // namespace

int command_run(const program::command_line &line) {
    const launch_options options = read_options(line);
    if (options.command.empty()) {
        return complain_of_usage("no COMMAND to run", status_launcher);
    }
    const arguments ports = split_ports(options.ports);
    if (ports.empty() || ports.size() > max_ports) {
        return complain_of_usage("--ports wants up to " + std::to_string(max_ports) +
                                     " different names of up to 15 characters, not '" +
                                     options.ports + "'",
                                 status_launcher);
    }
    return run_world(options, ports);
}

int command_join(const program::command_line &line) {
    const launch_options options = read_options(line);
    if (options.command.empty()) {
        return complain_of_usage("no COMMAND to run", status_launcher);
    }
    std::string problem;
    const std::string path = choose_world(options.world, false, &problem);
    if (path.empty()) {
        return complain(status_launcher, problem);
    }
    int code = 0;
    world_region *region = world_map(path.c_str(), &code);
    if (region == nullptr) {
        return complain(status_launcher, path + ": " + strerror(code));
    }
    if (!enter_environment(path, port_list(region), &problem)) {
        return complain(status_launcher, problem);
    }
    exec_command(options.command);
}

} // namespace softcan
