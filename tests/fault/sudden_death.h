#ifndef KT_TESTS_SUDDEN_DEATH_H
#define KT_TESTS_SUDDEN_DEATH_H

#include <cstdint>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>

/** Everything random comes from the seed. */
class dice {
public:
    explicit dice(uint64_t seed) : source_(seed) {}
    uint64_t below(uint64_t limit) { return source_() % limit; }
    bool one_of(uint64_t number) { return below(number) == 0; }

private:
    std::mt19937_64 source_;
};

/** Something that must hold does not. */
class found : public std::runtime_error {
public:
    explicit found(const std::string &what) : std::runtime_error(what) {}
};

inline void expect(bool condition, const std::string &what) {
    if (!condition) {
        throw found(what);
    }
}

enum class moment {
    time,      /* after so many microseconds */
    call,      /* where a system call begins or ends, counted */
    half_write /* at that place, too; a write that begins there writes its first half */
};

struct death {
    moment when;
    uint64_t after;
};

enum class ended { killed, by_itself };

/**
 * Run work() in a child process and end that with SIGKILL, unless it has ended before.
 *
 * @param work    its result is the exit status; anything but 0 is a finding
 * @param beside  called by this process again and again while a child that dies by time works
 */
ended run_until(const death &how,
                const std::function<int()> &work,
                const std::function<void()> &beside);

#endif
