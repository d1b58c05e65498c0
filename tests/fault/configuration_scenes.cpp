#include "config/database.h"
#include "config/database_files.h"
#include "configuration.h"
#include "core/state.h"
#include "death_scene.h"
#include "requests.h"

#include <kt/protocol_common.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <sys/mman.h>

/*
 * Requests and starts that are cut off. What was answered is there afterwards; of the one that was
 * under way, all or nothing. One time in four the memory file system goes with the process, as it
 * does with the power.
 */

namespace {

/** What the working copy and the persistent database hold, and what a step under way may leave. */
struct ledger {
    configuration now;
    configuration may;
};

/** Two ledgers in shared memory, so that one is whole whenever the writer dies. */
struct shared_ledger {
    ledger pages[2];
    std::atomic<uint32_t> current;

    [[nodiscard]] const ledger &read() const { return pages[current]; }
    void write(const ledger &next) {
        pages[1 - current] = next;
        current = 1 - current;
    }
    void agree(const configuration &now) { write({now, now}); }
};

shared_ledger &books() {
    static shared_ledger *made = [] {
        void *memory = mmap(nullptr,
                            sizeof(shared_ledger),
                            PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS,
                            -1,
                            0);
        expect(memory != MAP_FAILED, "no shared memory");
        return new (memory) shared_ledger{};
    }();
    return *made;
}

std::string scratch() {
    return rooted_path("/read.db");
}

/** The one of the contents that the file holds. */
content expect_one_of(const std::string &file, const content &first, const content &second) {
    const std::string rows = rows_in(file, scratch());
    if (rows == rows_of(first)) {
        return first;
    }
    expect(rows == rows_of(second),
           file + " holds neither " + brief(first) + " nor " + brief(second) + " but\n" + rows);
    return second;
}

void start_gateway() {
    expect(can_proprietary_db_init_user_config() == 0, "the next start fails");
    sqlite3 *db = can_proprietary_db_get();
    expect(db != nullptr && can_proprietary_restart == 0, "the working copy is refused");
    expect(can_proprietary_db_close(db) == 0, "the working copy cannot be closed");
}

void lose_memory() {
    for (const char *folder : {"/run/config", "/run/tmp"}) { // the tags are another scene's
        std::filesystem::remove_all(rooted_path(folder));
    }
    std::filesystem::create_directories(rooted_path("/run/tmp/kt-can-proprietary"));
}

class requests_scene : public scene {
public:
    requests_scene() {
        (void)books(); // shared with the children only when it is there before them
        std::filesystem::create_directories(rooted_path("/run/tmp/kt-can-proprietary"));
    }

    int work(dice &random) override {
        shared_ledger &book = books();
        for (;;) {
            const configuration now = book.read().now;
            const step wanted = next_step(random, now);
            book.write({now, wanted.after});
            if (const int status = perform(wanted); status != wanted.done) {
                (void)dprintf(STDERR_FILENO,
                              "%s %s: %d %s\n",
                              wanted.method,
                              wanted.path.c_str(),
                              status,
                              last_answer().c_str());
                return 3;
            }
            book.agree(wanted.after);
        }
    }

    void start_again(dice &random) override {
        power_ = random.one_of(4);
        if (power_) {
            lose_memory();
        }
        start_gateway();
    }

    void judge(dice & /*random*/) override {
        const ledger book = books().read();
        configuration found = book.may;
        found.persistent =
            expect_one_of(persistent_db_path(), book.now.persistent, book.may.persistent);
        found.working = power_
                            ? expect_one_of(working_db_path(), found.persistent, found.persistent)
                            : expect_one_of(working_db_path(), book.now.working, book.may.working);
        books().agree(found);
    }

    void reset() override {
        std::filesystem::remove_all(rooted_path("/data"));
        lose_memory();
        (void)can_proprietary_db_init_user_config(); // judged after the next death
        can_proprietary_restart = 0;
        books().agree({books().read().may.counter, {}, {}});
    }

private:
    bool power_ = false;
};

std::string content_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class start_scene : public requests_scene {
public:
    void prepare(dice &random) override {
        if (schema_.empty()) {
            schema_ = content_of(shipped_schema_path());
        }
        switch (random.below(3)) {
        case 0:
            first_start();
            break;
        case 1:
            lose_memory();
            break;
        default:
            change_schema(random.below(1000));
            break;
        }
        configuration now = books().read().now;
        now.working = now.persistent;
        books().agree(now);
    }

    int work(dice & /*random*/) override {
        return can_proprietary_db_init_user_config() == 0 ? 0 : 3;
    }

    void judge(dice &random) override {
        expect(content_of(saved_schema_path()) == content_of(shipped_schema_path()),
               "the saved schema is not the shipped one");
        requests_scene::judge(random);
        if (books().read().now.persistent.imported == 0) {
            fill(random);
        }
    }

private:
    void first_start() {
        std::filesystem::remove_all(rooted_path("/data"));
        lose_memory();
        books().agree({books().read().now.counter, {}, {}});
    }

    void change_schema(uint64_t number) {
        std::ofstream file(shipped_schema_path(), std::ios::binary);
        file << schema_ << (number % 2 == 0 ? "" : "CREATE TABLE added (x);\n") << "-- " << number
             << "\n";
    }

    /** Something to lose: a configuration, applied. */
    static void fill(dice &random) {
        while (books().read().now.persistent.imported == 0) {
            const step wanted = next_step(random, books().read().now);
            expect(perform(wanted) == wanted.done, "a request fails: " + last_answer());
            books().agree(wanted.after);
        }
        can_proprietary_restart = 0; // an apply asks for it
    }

    std::string schema_;
};

} // namespace

std::unique_ptr<scene> make_requests_scene() {
    return std::make_unique<requests_scene>();
}

std::unique_ptr<scene> make_start_scene() {
    return std::make_unique<start_scene>();
}
