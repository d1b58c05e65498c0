#include "config/config_file.h"
#include "config/database.h"
#include "config/database_files.h"
#include "config/read.h"
#include "configuration.h"
#include "core/log.h"
#include "core/state.h"
#include "damage.h"
#include "gateway_folder.h"
#include "requests.h"
#include "rest/handlers.h"

#include <kt/rest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

/*
 * Databases with damaged bytes, and a service that starts with them: it serves, answers with
 * errors, starts from the schema, or refuses to start; it does not crash or hang, and touches no
 * other file.
 */

namespace {

enum outcome { SERVED, ERRORS, REBUILT, REFUSED, outcome_count };
constexpr std::array outcome_names = {"served", "errors", "rebuilt", "refused"};
constexpr int restless = 51;      /* it starts anew and anew */
constexpr int first_outcome = 60; /* a sanitizer ends the process with a small one */
constexpr int most_passes = 5;

struct options {
    uint64_t seed = 1;
    uint64_t first = 0;
    uint64_t count = 1000;
    std::string file; /* damage this one instead, once */
};

std::string content_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << bytes;
}

/** Every file below a folder, with its content but for those that a service changes. */
std::map<std::string, std::string> files_below(const std::string &root) {
    std::map<std::string, std::string> found;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string path = entry.path();
        const bool changes =
            path.find(".db") != std::string::npos || path.find("/run/tmp/") != std::string::npos;
        if (entry.is_regular_file()) {
            found[path] = changes ? "" : content_of(path);
        }
    }
    return found;
}

/** @return whether the request was done */
bool ask(rest_callback handler, const char *uri) {
    const int status = handler(uri, nullptr, 0);
    return status >= 200 && status < 300;
}

bool read_everything() {
    bool good = true;
    for (int port = 1; port <= 2; port++) {
        device_config *devices = nullptr;
        good = can_proprietary_conf_get_port_config(&devices, port) == 0 && good;
        conf_free_device_list(devices);
    }
    uint8_t devices = 0;
    good = can_proprietary_conf_get_device_num(&devices) == 0 && good;
    good = ask(can_proprietary_rest_get_overview_config, "/CAN-proprietary/overview") && good;
    good =
        ask(can_proprietary_rest_get_usedCANIds_config, "/CAN-proprietary/usedCANIds?portId=1") &&
        good;
    good = ask(can_proprietary_rest_get_config_change, "/CAN-proprietary/config-change") && good;
    good =
        ask(can_proprietary_rest_get_device_config, "/CAN-proprietary/device?deviceId=1") && good;
    return ask(can_proprietary_rest_get_config_file, "/CAN-proprietary/config-file") && good;
}

bool change_everything(dice &random, bool imports) {
    configuration now{100, {}, {}};
    bool good = true;
    for (int i = 0; i < 12; i++) {
        step wanted = next_step(random, now);
        if (!imports && wanted.path == "/config-file") {
            continue;
        }
        good = perform(wanted) == wanted.done && good;
        now = wanted.after;
    }
    return good;
}

/** As a service that starts with these files and is used. @return exit status */
int serve(dice &random) {
    bool good = true;
    bool rebuilt = false;
    for (int pass = 0; pass < most_passes; pass++) {
        can_proprietary_restart = 0;
        if (can_proprietary_db_init_user_config() != 0) {
            return REFUSED;
        }
        good = read_everything() && good;
        if (can_proprietary_restart == 0) {
            good = change_everything(random, pass % 2 == 1) && good;
        }
        // An apply asks for another pass as well; only a removal takes the files.
        const bool removed = !std::filesystem::exists(working_db_path());
        rebuilt = rebuilt || removed;
        if (!removed && pass > 0) {
            return rebuilt ? REBUILT : good ? SERVED : ERRORS;
        }
    }
    return restless;
}

/** What is left starts, or starts once its files are away. */
void expect_mendable(const std::string &scratch) {
    can_proprietary_restart = 0;
    if (can_proprietary_db_init_user_config() != 0) {
        remove_all_databases();
        expect(can_proprietary_db_init_user_config() == 0, "no start without the files either");
        expect(rows_in(persistent_db_path(), scratch) == rows_of({}), "not the schema's rows");
    }
}

class sweep {
public:
    explicit sweep(const options &wanted) : wanted_(wanted) {
        std::filesystem::create_directories(rooted_path("/run/tmp/kt-can-proprietary"));
        dice random(7);
        configuration now{7, {}, {}};
        for (int i = 0; i < 40 || now.persistent.imported == 0 || now.working.extras == 0; i++) {
            const step made = next_step(random, now);
            expect(perform(made) == made.done, "the first configuration cannot be made");
            now = made.after;
        }
        for (const std::string &path : paths()) {
            sound_.push_back(content_of(path));
        }
        schema_ = content_of(saved_schema_path());
        before_ = files_below(rooted_path("/"));
    }

    void run(uint64_t number) {
        dice random(wanted_.seed * 1000003 + number);
        restore();
        const size_t which = random.below(10) < 4 ? 1 : random.below(10) < 8 ? 2 : 0;
        std::string bytes = sound_[which];
        const std::string what = damage(&bytes, random);
        write_file(paths()[which], bytes);
        if (which == 1) {
            (void)remove(paths()[2].c_str()); // a boot: the working copy is made of it
        } else if (which == 0) {
            write_file(shipped_schema_path(),
                       schema_ + "-- another\n"); // it is used in a migration
        }
        constexpr std::array roles = {"default", "persistent", "working"};
        try {
            count(what, judge(random));
        } catch (const found &finding) {
            findings_++;
            (void)fprintf(stderr,
                          "damage_sweep: file %llu, %s of the %s database: %s\n"
                          "  again: --seed %llu --first %llu --count 1\n",
                          static_cast<unsigned long long>(number),
                          what.c_str(),
                          roles[which],
                          finding.what(),
                          static_cast<unsigned long long>(wanted_.seed),
                          static_cast<unsigned long long>(number));
        }
    }

    int print() const {
        (void)printf("%-18s", "damage");
        for (const char *name : outcome_names) {
            (void)printf("%9s", name);
        }
        (void)printf("\n");
        for (const auto &[what, sums] : sums_) {
            (void)printf("%-18s", what.c_str());
            for (const unsigned sum : sums) {
                (void)printf("%9u", sum);
            }
            (void)printf("\n");
        }
        (void)printf("damage_sweep: seed %llu, %llu files, %u served, %u answered with errors,"
                     " %u rebuilt, %u refused, %u findings\n",
                     static_cast<unsigned long long>(wanted_.seed),
                     static_cast<unsigned long long>(wanted_.count),
                     all_[SERVED],
                     all_[ERRORS],
                     all_[REBUILT],
                     all_[REFUSED],
                     findings_);
        return findings_ == 0 ? 0 : 1;
    }

private:
    static std::vector<std::string> paths() {
        return {default_db_path(), persistent_db_path(), working_db_path()};
    }

    void restore() const {
        for (const std::string &path : paths()) {
            for (const char *end : {"-journal", ".new", ".new-journal"}) {
                (void)remove((path + end).c_str()); // most often not there
            }
        }
        std::filesystem::create_directories(std::filesystem::path(working_db_path()).parent_path());
        for (size_t i = 0; i < sound_.size(); i++) {
            write_file(paths()[i], sound_[i]);
        }
        write_file(saved_schema_path(), schema_);
        write_file(shipped_schema_path(), schema_);
    }

    /** @return the outcome */
    unsigned judge(dice &random) const {
        const std::string shipped = content_of(shipped_schema_path());
        const pid_t child = fork();
        expect(child >= 0, "fork fails");
        if (child == 0) {
            (void)alarm(60); // a hang
            _exit(first_outcome + serve(random));
        }
        int status = 0;
        (void)waitpid(child, &status, 0); // our child
        expect(!WIFSIGNALED(status) || WTERMSIG(status) != SIGALRM, "hangs");
        expect(!WIFSIGNALED(status), "signal " + std::to_string(WTERMSIG(status)));
        const int code = WEXITSTATUS(status) - first_outcome;
        expect(code != restless, "starts anew and anew");
        expect(code >= 0 && code < outcome_count,
               "exit status " + std::to_string(WEXITSTATUS(status)));
        expect_others_untouched(shipped);
        expect_mendable(rooted_path("/read.db"));
        return static_cast<unsigned>(code);
    }

    void expect_others_untouched(const std::string &shipped) const {
        for (const auto &[path, bytes] : files_below(rooted_path("/"))) {
            const bool schema = path == shipped_schema_path() || path == saved_schema_path();
            const bool ours = path.find("/run/tmp/") != std::string::npos ||
                              path.find(".db") != std::string::npos;
            const auto place = before_.find(path);
            expect(place != before_.end() || ours, "a file that is none of the service's: " + path);
            expect(schema || ours || place->second == bytes, path + " has changed");
        }
        expect(content_of(shipped_schema_path()) == shipped, "the shipped schema has changed");
    }

    void count(const std::string &what, unsigned outcome) {
        sums_[what][outcome]++;
        all_[outcome]++;
    }

    options wanted_;
    std::vector<std::string> sound_;
    std::string schema_;
    std::map<std::string, std::string> before_;
    std::map<std::string, std::array<unsigned, outcome_count>> sums_;
    std::array<unsigned, outcome_count> all_{};
    unsigned findings_ = 0;
};

bool read_options(int argc, char **argv, options *wanted) {
    for (int i = 1; i < argc; i++) {
        const std::string name = argv[i];
        if (name == "--all") {
            wanted->count = 1000;
            continue;
        }
        if (name == "--file" && i + 1 < argc) {
            wanted->file = argv[++i];
            continue;
        }
        uint64_t *value = name == "--seed"    ? &wanted->seed
                          : name == "--count" ? &wanted->count
                          : name == "--first" ? &wanted->first
                                              : nullptr;
        if (value == nullptr || ++i == argc) {
            return false;
        }
        *value = strtoull(argv[i], nullptr, 10);
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    options wanted;
    if (!read_options(argc, argv, &wanted)) {
        (void)fprintf(
            stderr,
            "usage: damage_sweep [--all] [--seed N] [--count N] [--first N] [--file PATH]\n");
        return 2;
    }
    if (!wanted.file.empty()) {
        dice random(wanted.seed);
        std::string bytes = content_of(wanted.file);
        (void)printf("%s\n", damage(&bytes, random).c_str());
        write_file(wanted.file, bytes);
        return 0;
    }
    const gateway_folder gateway("kt-damage");
    (void)setenv("KT_CANOPEN_XLOG_USER_LEVEL", "OFF", 0);
    log_init_from_environment();
    sweep run(wanted);
    for (uint64_t number = wanted.first; number < wanted.first + wanted.count; number++) {
        run.run(number);
    }
    return run.print();
}
