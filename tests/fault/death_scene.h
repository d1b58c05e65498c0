#ifndef KT_TESTS_DEATH_SCENE_H
#define KT_TESTS_DEATH_SCENE_H

#include "sudden_death.h"

#include <cstdint>
#include <memory>
#include <string>

/** What a child process does when it dies, and what must hold afterwards. */
class scene {
public:
    scene() = default;
    virtual ~scene() = default;
    scene(const scene &) = delete;
    scene &operator=(const scene &) = delete;

    /** Before the child is there. */
    virtual void prepare(dice & /*random*/) {}

    /** In the child; goes on until it is killed, or ends. @return 0, else it is a finding */
    virtual int work(dice &random) = 0;

    /** In this process meanwhile; does nothing unless watches(). */
    virtual void beside() {}
    [[nodiscard]] virtual bool watches() const { return false; }

    /** After the death; throws found. The first step is a next start, which is timed. */
    virtual void start_again(dice & /*random*/) {}
    virtual void judge(dice &random) = 0;

    /** After a finding: from the beginning. */
    virtual void reset() = 0;
};

struct scene_kind {
    const char *name;
    unsigned share;      /* of the deaths */
    uint64_t longest_us; /* most of what is to be cut lies before */
    uint64_t most_calls; /* the same, in beginnings and ends of system calls */
    std::unique_ptr<scene> (*make)();
};

std::unique_ptr<scene> make_recorder_scene();
std::unique_ptr<scene> make_provider_scene();
std::unique_ptr<scene> make_writer_scene();
std::unique_ptr<scene> make_requests_scene();
std::unique_ptr<scene> make_start_scene();

#endif
