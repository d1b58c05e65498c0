#include "bench_gateway.h"
#include "config/config_file.h"
#include "config/database_files.h"
#include "largest.h"
#include "measured.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/*
 * Import and export of the largest configuration, next to the same rows as INSERTs in one
 * transaction, piped into the sqlite3 command line; in processor time, which a loaded machine does
 * not change much. And the memory that an import takes, which must not grow with the file.
 *
 *   bench_configuration [--size DEVICES,TRANSACTIONS] [--runs N]  the times and the memory
 *   bench_configuration [--size ...] --files FOLDER  the inputs alone: largest.sql, largest.csv and
 *                                                    empty.db in that folder
 *
 * Under callgrind the import and the export run once, as parts of the output.
 */

namespace {

struct options {
    configuration_size size = largest_size;
    int runs = 7;
    std::string folder;
};

std::string name_of(const char *what, const configuration_size &size) {
    return std::string(what) + " of " +
           (size.devices == largest_size.devices ? "the largest configuration"
                                                 : std::to_string(size.tags()) + " tags");
}

void import(const std::string &path) {
    conf_import_error err{};
    if (can_proprietary_conf_import(path.c_str(), &err) != 0) {
        give_up(std::string("import: ") + err.key + " in " + err.table_name);
    }
}

void export_to(const std::string &path) {
    if (can_proprietary_conf_export(path.c_str()) != 0) {
        give_up("export");
    }
}

/** The working copy as it is before the first device, and as another file. */
void copy_empty_to(const std::string &path) {
    std::filesystem::copy_file(
        persistent_db_path(), path, std::filesystem::copy_options::overwrite_existing);
}

void expect_all_rows(const std::string &path, const configuration_size &size) {
    sqlite3 *db = open_like_the_service(path);
    // fails unless every row is there
    execute_on(db,
               "SELECT CASE WHEN (SELECT COUNT(*) FROM block) = " + std::to_string(size.tags()) +
                   " AND (SELECT COUNT(*) FROM frame) = " + std::to_string(size.frames()) +
                   " THEN 1 ELSE json('rows are missing') END");
    (void)sqlite3_close(db);
}

/** Processor time of the children so far, in microseconds. */
double children_us() {
    rusage usage{};
    (void)getrusage(RUSAGE_CHILDREN, &usage);
    const auto microseconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

double run_command(const std::string &command) {
    const double before = children_us();
    if (system(command.c_str()) != 0) {
        give_up(command + " failed");
    }
    return children_us() - before;
}

template <typename Work>
double timed(Work work) {
    const double before = processor_us();
    work();
    return processor_us() - before;
}

struct files {
    explicit files(const bench_gateway &gateway)
        : csv(gateway.path("largest.csv")), sql(gateway.path("largest.sql")),
          database(gateway.path("other.db")), exported(gateway.path("exported.csv")) {}
    std::string csv, sql, database, exported;
};

void measure_import(const files &files, const options &options) {
    std::vector<double> ours;
    std::vector<double> command;
    for (int i = 0; i < options.runs; i++) {
        copy_empty_to(working_db_path());
        ours.push_back(timed([&] { import(files.csv); }) / 1000);
        copy_empty_to(files.database);
        command.push_back(
            run_command("sqlite3 -bail " + files.database + " <" + files.sql + " >/dev/null") /
            1000);
    }
    expect_all_rows(working_db_path(), options.size);
    expect_all_rows(files.database, options.size);
    const std::string name = name_of("import", options.size);
    print_values({name, "service"}, "ms of processor", ours);
    print_values({name, "sqlite3"}, "ms of processor", command);
}

/** Of what is in the working copy now; the command line writes the five tables with headers. */
void measure_export(const files &files, const options &options) {
    std::string command = "sqlite3 -csv -header " + files.database;
    for (const char *table : {"interface_setting", "device", "transactions", "frame", "block"}) {
        command += std::string(" 'SELECT * FROM ") + table + "'";
    }
    command += " >/dev/null";
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int i = 0; i < options.runs; i++) {
        ours.push_back(timed([&] { export_to(files.exported); }) / 1000);
        theirs.push_back(run_command(command) / 1000);
    }
    const std::string name = name_of("export", options.size);
    print_values({name, "service"}, "ms of processor", ours);
    print_values({name, "sqlite3"}, "ms of processor", theirs);
}

/** Highest resident memory of this process in KiB. */
long peak_kib() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        if (word == "VmHWM:") {
            long value = 0;
            status >> value;
            return value;
        }
    }
    give_up("no VmHWM in /proc/self/status");
}

/** What an import adds to the peak of a process that has done nothing else. */
long peak_growth_kib(const std::string &path) {
    int ends[2];
    if (pipe(ends) != 0) {
        give_up("pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        const std::string clear = "5"; // the peak begins again from what is resident now
        std::ofstream("/proc/self/clear_refs") << clear << std::flush;
        const long before = peak_kib();
        import(path);
        const long growth = peak_kib() - before;
        _exit(write(ends[1], &growth, sizeof growth) == sizeof growth ? 0 : 1);
    }
    long growth = -1;
    int status = 1;
    const bool told = read(ends[0], &growth, sizeof growth) == sizeof growth;
    (void)waitpid(child, &status, 0);
    (void)close(ends[0]);
    (void)close(ends[1]);
    if (!told || status != 0) {
        give_up("the import in a process of its own failed");
    }
    return growth;
}

std::string skipped_lines() {
    std::string text;
    const std::string line(200, '#');
    while (text.size() < 50U * 1024 * 1024) {
        text.append(line).append("\n");
    }
    return text;
}

void measure_memory(const files &files, const char *name, const std::string &content) {
    write_file(files.csv, content);
    copy_empty_to(working_db_path());
    print_value({name, "service"}, "KiB added", static_cast<double>(peak_growth_kib(files.csv)));
}

void measure_memories(const files &files, const std::string &file) {
    measure_memory(files, "memory of an import, the largest file", file);
    measure_memory(
        files, "memory of an import, behind 50 MiB of skipped lines", skipped_lines() + file);
    std::string again;
    for (int i = 0; i < 16; i++) {
        again += file;
    }
    measure_memory(files, "memory of an import, 16 times over", again);
}

void count(const files &files, const configuration_size &size) {
    copy_empty_to(working_db_path());
    counting_starts();
    import(files.csv);
    counting_ends("service/" + name_of("import", size));
    counting_starts();
    export_to(files.exported);
    counting_ends("service/" + name_of("export", size));
}

options read_options(int argc, char **argv) {
    options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view word = argv[i];
        const char *value = argv[i + 1];
        if (word == "--files") {
            options.folder = value;
        } else if (word == "--runs") {
            options.runs = atoi(value);
        } else if (word != "--size" ||
                   sscanf(value, "%d,%d", &options.size.devices, &options.size.transactions) != 2) {
            give_up("unknown argument " + std::string(word));
        }
    }
    return options;
}

} // namespace

int main(int argc, char **argv) {
    const options options = read_options(argc, argv);
    const bench_gateway gateway;
    const files files(gateway);
    const both_forms forms = make_configuration(options.size);
    if (!options.folder.empty()) {
        write_file(options.folder + "/largest.sql", forms.sql);
        write_file(options.folder + "/largest.csv", forms.file);
        copy_empty_to(options.folder + "/empty.db");
        return 0;
    }
    write_file(files.csv, forms.file);
    write_file(files.sql, forms.sql);
    if (is_counted()) {
        count(files, options.size);
        return 0;
    }
    measure_import(files, options);
    measure_export(files, options);
    measure_memories(files, forms.file);
    return 0;
}
