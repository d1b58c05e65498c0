#include "bench_gateway.h"
#include "config/config_file.h"
#include "config/database_files.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/*
 * Import of the largest configuration (255 devices, 512 request transactions, 1024 frames, 8192
 * tags) into an empty working copy, next to the same rows as INSERTs in one transaction, piped into
 * the sqlite3 command line, in processor time, which a loaded machine does not change much; and the
 * memory that an import takes, which must not grow with the file.
 */

namespace {

constexpr int devices = 255;
constexpr int transactions = 512;
constexpr int frames = 2 * transactions;
constexpr int tags_per_frame = 8;

bench_gateway *g_gateway = nullptr;

struct section {
    const char *head;
    const char *header;
    const char *table;
};

constexpr section interfaces = {"[interface-setting]",
                                "portId,frameFormat,baudrate,initialDelay,busOffReset,resistor",
                                "interface_setting"};
constexpr section device_section = {"[device]", "deviceId,portId,deviceName", "device"};
constexpr section transaction_section = {
    "[transactions]",
    "transactionId,deviceId,transactionEnable,transactionName,transactionType,triggerMode,"
    "cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,consumeTimeout,timeoutRetry,"
    "responseTimeout",
    "transactions"};
constexpr section frame_section = {
    "[frame]", "frameId,transactionId,canId,dataLength,frameType", "frame"};
constexpr section block_section = {
    "[block]",
    "blockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,scalingFunc,"
    "interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,pointTargetMin,pointTargetMax,"
    "constantName,constantSize,constantValue",
    "block"};

/** The same rows twice: as sections of a file and as statements. */
struct both_forms {
    std::string file = "version: 1.0.0\n\n";
    std::string sql;

    void begin(const section &section) {
        file.append(section.head).append("\n").append(section.header).append("\n");
        sql.append("DELETE FROM ").append(section.table).append(";\n");
        table = section.table;
    }
    void row(const std::string &line, const std::string &values) {
        file.append(line).append("\n");
        sql.append("INSERT INTO ").append(table).append(" VALUES (").append(values).append(");\n");
    }
    void end() { file.append("\n"); }

    const char *table = nullptr;
};

template <typename... Arguments>
std::string format(const char *pattern, Arguments... arguments) {
    char text[256];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    (void)snprintf(text, sizeof text, pattern, arguments...);
#pragma GCC diagnostic pop
    return text;
}

void add_parents(both_forms *to) {
    to->begin(interfaces);
    to->row("1,0,3,0,0,0", "1,0,3,0,0,0");
    to->row("2,1,3,0,0,0", "2,1,3,0,0,0");
    to->end();
    to->begin(device_section);
    for (int i = 1; i <= devices; i++) {
        to->row(format("%d,%d,device-%d", i, 1 + i % 2, i),
                format("%d,%d,'device-%d'", i, 1 + i % 2, i));
    }
    to->end();
    to->begin(transaction_section);
    for (int i = 1; i <= transactions; i++) {
        const int device = 1 + i % devices;
        to->row(format("%d,%d,1,exchange-%d,2,0,1000,2,500,,,,2,100", i, device, i),
                format("%d,%d,1,'exchange-%d',2,0,1000,2,500,0,0,10000,2,100", i, device, i));
    }
    to->end();
}

void add_frames(both_forms *to) {
    to->begin(frame_section);
    for (int i = 1; i <= frames; i++) {
        const int type = i % 2 == 1 ? 2 : 3;
        to->row(format("%d,%d,%X,8,%d", i, (i + 1) / 2, i, type),
                format("%d,%d,0x%X,8,%d", i, (i + 1) / 2, i, type));
    }
    to->end();
}

void add_blocks(both_forms *to) {
    to->begin(block_section);
    for (int i = 0; i < frames * tags_per_frame; i++) {
        const int frame = 1 + i / tags_per_frame;
        const int offset = i % tags_per_frame;
        to->row(
            format("%d,%d,0,%d,value-%d,5,1,wo,0,FF,2,,,0.000000,255.000000,0.000000,1.000000,,,",
                   i + 1,
                   frame,
                   offset,
                   offset),
            format("%d,%d,0,%d,'value-%d',5,1,'wo',0,'FF',2,1,0,0.000000,255.000000,0.000000,"
                   "1.000000,'constantName',1,''",
                   i + 1,
                   frame,
                   offset,
                   offset));
    }
    to->end();
}

const both_forms &largest() {
    static const both_forms forms = [] {
        both_forms made;
        made.sql = "PRAGMA synchronous = OFF; PRAGMA foreign_keys = ON; "
                   "PRAGMA journal_mode = DELETE;\nBEGIN TRANSACTION;\n";
        add_parents(&made);
        add_frames(&made);
        add_blocks(&made);
        made.sql.append("COMMIT;\n");
        return made;
    }();
    return forms;
}

void import(const std::string &path) {
    conf_import_error err{};
    if (can_proprietary_conf_import(path.c_str(), &err) != 0) {
        give_up(format("import: %s in %s line %d", err.key, err.table_name, err.line));
    }
}

/** The working copy as it is before the first device, and as another file. */
void copy_empty_to(const std::string &path) {
    std::filesystem::copy_file(
        persistent_db_path(), path, std::filesystem::copy_options::overwrite_existing);
}

void expect_all_rows(const std::string &path) {
    sqlite3 *db = open_like_the_service(path);
    // fails unless every row is there
    execute_on(db,
               format("SELECT CASE WHEN (SELECT COUNT(*) FROM block) = %d AND (SELECT COUNT(*) "
                      "FROM frame) = %d THEN 1 ELSE json('rows are missing') END",
                      frames * tags_per_frame,
                      frames));
    (void)sqlite3_close(db);
}

/** Processor time of this process or of its children so far, in seconds. */
double processor_seconds(int who) {
    rusage usage{};
    (void)getrusage(who, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void import_file(benchmark::State &state) {
    const std::string path = g_gateway->path("largest.csv");
    write_file(path, largest().file);
    for (auto _ : state) {
        copy_empty_to(working_db_path());
        const double before = processor_seconds(RUSAGE_SELF);
        import(path);
        state.SetIterationTime(processor_seconds(RUSAGE_SELF) - before);
    }
    expect_all_rows(working_db_path());
    state.counters["file_bytes"] = static_cast<double>(largest().file.size());
}

void sqlite3_command(benchmark::State &state) {
    const std::string script = g_gateway->path("largest.sql");
    const std::string database = g_gateway->path("other.db");
    const std::string command = "sqlite3 -bail " + database + " <" + script + " >/dev/null";
    write_file(script, largest().sql);
    for (auto _ : state) {
        copy_empty_to(database);
        const double before = processor_seconds(RUSAGE_CHILDREN);
        if (system(command.c_str()) != 0) {
            give_up(command + " failed");
        }
        state.SetIterationTime(processor_seconds(RUSAGE_CHILDREN) - before);
    }
    expect_all_rows(database);
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

void measure_memory(benchmark::State &state, const std::function<std::string()> &content) {
    const std::string path = g_gateway->path("memory.csv");
    const std::string text = content();
    write_file(path, text);
    for (auto _ : state) {
        copy_empty_to(working_db_path());
        state.counters["peak_KiB"] = static_cast<double>(peak_growth_kib(path));
    }
    state.counters["file_bytes"] = static_cast<double>(text.size());
}

void memory_one_file(benchmark::State &state) {
    measure_memory(state, [] { return largest().file; });
}

void memory_skipped_lines(benchmark::State &state) {
    measure_memory(state, [] {
        std::string text;
        const std::string line(200, '#');
        while (text.size() < 50U * 1024 * 1024) {
            text.append(line).append("\n");
        }
        return text + largest().file;
    });
}

void memory_sections_again(benchmark::State &state) {
    measure_memory(state, [] {
        std::string text;
        for (int i = 0; i < 16; i++) {
            text += largest().file;
        }
        return text;
    });
}

BENCHMARK(import_file)->Unit(benchmark::kMillisecond)->UseManualTime();
BENCHMARK(sqlite3_command)->Unit(benchmark::kMillisecond)->UseManualTime();
BENCHMARK(memory_one_file)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(memory_skipped_lines)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(memory_sections_again)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace

int main(int argc, char **argv) {
    bench_gateway gateway;
    g_gateway = &gateway;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
