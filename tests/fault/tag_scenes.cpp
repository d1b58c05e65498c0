#include "core/state.h"
#include "death_scene.h"

#include <kt/dx.h>
#include <kt/dx_client.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <new>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/*
 * Raw tags whose bytes are all the same, whoever looks and whenever the writer dies. A provider
 * that dies leaves its names to the next one; a client that dies leaves a provider that is still
 * told of writes.
 */

namespace {

constexpr int raw_type = 13;
constexpr uint64_t every_byte = 0x0101010101010101ULL;

using handle_ptr = std::unique_ptr<dx_handle, decltype(&dx_destroy)>;
using client_ptr = std::unique_ptr<dx_client, decltype(&dx_client_close)>;

bool whole(uint64_t value) {
    return value == (value & 0xff) * every_byte;
}

client_ptr open_client() {
    dx_client *client = nullptr;
    expect(dx_client_open(&client) == DX_OK, "the tag store cannot be opened");
    return {client, dx_client_close};
}

/** A tag as a client reads it. */
class watched_tag {
public:
    explicit watched_tag(const char *name) : name_(name) {}

    /** @return whether there was a value to look at */
    bool look() {
        if (client_ == nullptr) {
            dx_client *client = nullptr;
            if (dx_client_open(&client) != DX_OK) {
                return false; // not made yet
            }
            client_.reset(client);
        }
        dx_tag_info info{};
        dx_sample sample{};
        if (dx_client_find(client_.get(), name_, &info) != DX_OK ||
            dx_client_read(client_.get(), &info, &sample) != DX_OK) {
            return false;
        }
        uint64_t value = 0;
        memcpy(&value, sample.value, sizeof value);
        expect(whole(value), "a torn value was read");
        return true;
    }

private:
    const char *name_;
    client_ptr client_{nullptr, dx_client_close};
};

void write_tag(const client_ptr &client, const char *name, uint64_t byte) {
    dx_tag_info info{};
    const uint64_t value = byte * every_byte;
    expect(dx_client_find(client.get(), name, &info) == DX_OK, "the tag is not found");
    expect(dx_client_write(client.get(), &info, &value, sizeof value) == DX_OK,
           "the tag cannot be written");
}

/** @return 0 when both tags stand */
int provide(dx_handle *handle, dx_tag **shown, dx_tag **taken) {
    *shown = dx_tag_provider_new(handle, "sweep/shown", raw_type, 8, DX_READ_ONLY);
    *taken = dx_tag_provider_new(handle, "sweep/taken", raw_type, 8, DX_WRITE_ONLY);
    return *shown != nullptr && *taken != nullptr ? 0 : 5;
}

class provider_scene : public scene {
public:
    int work(dice &random) override {
        dx_handle *handle = dx_new("sweep", nullptr);
        dx_tag *shown = nullptr;
        dx_tag *taken = nullptr;
        if (handle == nullptr || provide(handle, &shown, &taken) != 0) {
            return 3;
        }
        const bool registers = random.one_of(2);
        for (uint64_t number = 0;; number++) {
            const uint64_t value = (number & 0xff) * every_byte;
            if (dx_tag_write(handle, shown, &value, sizeof value) != 0 ||
                dx_tag_notify(handle) != 0) {
                return 4;
            }
            if (number % 16 == 0) {
                (void)sched_yield(); // writes make no system call, and death may wait for one
            }
            if (registers) {
                const std::string name = "sweep/" + std::to_string(number);
                dx_tag *passing =
                    dx_tag_provider_new(handle, name.c_str(), raw_type, 8, DX_READ_ONLY);
                if (passing == nullptr) {
                    return 5;
                }
                if (number % 3 != 0) {
                    dx_tag_destroy(passing);
                } else {
                    kept_.push_back(passing);
                }
                if (kept_.size() > 20) {
                    for (dx_tag *old : kept_) {
                        dx_tag_destroy(old);
                    }
                    kept_.clear();
                }
            }
        }
    }

    [[nodiscard]] bool watches() const override { return true; }
    void beside() override { (void)shown_.look(); }

    void start_again(dice & /*random*/) override {
        next_.reset(dx_new("sweep", nullptr));
        expect(next_ != nullptr, "the next provider does not start");
        expect(provide(next_.get(), &next_shown_, &next_taken_) == 0, "its tags are taken");
    }

    void judge(dice &random) override {
        const client_ptr client = open_client();
        const int seen = dx_client_list(
            client.get(),
            "sweep/*",
            [](void * /*context*/, const dx_tag_info * /*info*/, const dx_sample * /*sample*/) {
                return 0;
            },
            nullptr);
        expect(seen == 2, "tags of the dead are left: " + std::to_string(seen));
        const uint64_t byte = random.below(256);
        write_tag(client, "sweep/taken", byte);
        uint64_t value = 0;
        expect(dx_tag_read(next_taken_, &value, sizeof value) == 8 && value == byte * every_byte,
               "a written value does not arrive");
        next_.reset();
    }

    void reset() override {
        next_.reset();
        std::filesystem::remove_all(rooted_path("/run/kt-dx"));
    }

private:
    watched_tag shown_{"sweep/shown"};
    std::vector<dx_tag *> kept_;
    handle_ptr next_{nullptr, dx_destroy};
    dx_tag *next_shown_ = nullptr;
    dx_tag *next_taken_ = nullptr;
};

/** What the living provider and the sweep share. */
struct shared_state {
    std::atomic<int> ready;
    std::atomic<uint64_t> last; /* the value taken last */
    std::atomic<int> torn;
};

class writer_scene : public scene {
public:
    writer_scene() {
        void *memory = mmap(nullptr,
                            sizeof(shared_state),
                            PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS,
                            -1,
                            0);
        expect(memory != MAP_FAILED, "no shared memory");
        shared_ = new (memory) shared_state{};
        begin();
    }
    ~writer_scene() override { end(); }

    int work(dice & /*random*/) override {
        const client_ptr client = open_client();
        dx_tag_info info{};
        if (dx_client_find(client.get(), "living/taken", &info) != DX_OK) {
            return 3;
        }
        for (uint64_t number = 0;; number++) {
            const uint64_t value = (number & 0xff) * every_byte;
            if (dx_client_write(client.get(), &info, &value, sizeof value) != DX_OK) {
                return 4;
            }
        }
    }

    [[nodiscard]] bool watches() const override { return true; }
    void beside() override { expect(taken_.look(), "the tag of a living provider is gone"); }

    void judge(dice &random) override {
        const client_ptr client = open_client();
        const uint64_t byte = random.below(256);
        write_tag(client, "living/taken", byte);
        const time_t end = time(nullptr) + 60; // the machine may be busy
        while (shared_->last != byte * every_byte) {
            expect(time(nullptr) < end, "the provider is not told of a write");
            const timespec pause{0, 100000};
            (void)nanosleep(&pause, nullptr); // looked again in any case
        }
        expect(shared_->torn == 0, "the provider took a torn value");
    }

    void reset() override {
        end();
        shared_ = new (shared_) shared_state{};
        begin();
    }

private:
    static void take(dx_handle *handle, const uint8_t * /*bitmap*/) {
        uint64_t value = 0;
        if (dx_tag_read(living_tag_, &value, sizeof value) == 8) {
            auto *shared = static_cast<shared_state *>(dx_get_user_data(handle));
            shared->torn += whole(value) ? 0 : 1;
            shared->last = value;
        }
    }

    [[noreturn]] void live() {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL); // it lives no longer than the sweep
        dx_handle *handle = dx_new("living", take);
        if (handle != nullptr) {
            dx_set_user_data(handle, shared_);
            living_tag_ = dx_tag_provider_new(handle, "living/taken", raw_type, 8, DX_WRITE_ONLY);
        }
        shared_->ready = living_tag_ != nullptr ? 1 : -1;
        for (;;) {
            (void)pause(); // until it is killed
        }
    }

    void begin() {
        provider_ = fork();
        if (provider_ == 0) {
            live();
        }
        while (shared_->ready == 0) {
            (void)usleep(1000); // asked again
        }
        expect(shared_->ready == 1, "the living provider does not live");
    }

    void end() {
        if (provider_ > 0) {
            (void)kill(provider_, SIGKILL); // our child, not reaped yet
            (void)waitpid(provider_, nullptr, 0);
        }
    }

    static inline dx_tag *living_tag_ = nullptr;
    shared_state *shared_ = nullptr;
    pid_t provider_ = -1;
    watched_tag taken_{"living/taken"};
};

} // namespace

std::unique_ptr<scene> make_provider_scene() {
    return std::make_unique<provider_scene>();
}

std::unique_ptr<scene> make_writer_scene() {
    return std::make_unique<writer_scene>();
}
