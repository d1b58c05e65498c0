#ifndef KT_TESTS_FAULT_SCENARIO_H
#define KT_TESTS_FAULT_SCENARIO_H

#include "client.h"
#include "injection.h"
#include "scene.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

/** How an attempt with a fault ended. */
enum class verdict : uint8_t {
    NOTHING,   /* the attempt did not get to its end: a finding */
    SUCCEEDED, /* all the same */
    REFUSED,   /* as documented, and nothing is changed */
    UNTOLD,    /* done, but the answer was lost or says a failure after the change */
    FINDING
};

constexpr size_t content_max = 131072;

/** What a process tells about its attempt, in memory that it shares with the sweep. */
struct outcome {
    verdict is;
    bool happened;             /* the fault */
    uint32_t seen;             /* occasions for it */
    int64_t live;              /* blocks left at the end */
    char text[512];            /* of a finding */
    char content[content_max]; /* of the gateway at the end */
};

struct attempt {
    std::string fresh; /* the gateway as it was made */
    std::string root;  /* a copy of it for this attempt */
    injection::plan plan;
    int port;             /* number of the CAN port to use */
    std::string old_rows; /* content before */
    std::string new_rows; /* content after success; empty while that is looked for */
    int64_t live = 0;     /* blocks that a run without fault leaves */
};

struct scenario {
    const char *name;
    scene::kind gateway;
    bool is_warm; /* libraries have been in use before */
    void (*run)(const scenario &scenario, const attempt &attempt, outcome &out);
    http_request request = {"GET", "/overview"};
    int status = 200;              /* of its success */
    const char *prelude = nullptr; /* body of POST /traffic/1 before it */
    bool has_absent_port = false;  /* beside the one that there is */
};

std::span<const scenario> all_scenarios();

void find(outcome &out, const std::string &text);

/* Runs of scenarios, by what they are about. */
void run_request(const scenario &scenario, const attempt &attempt, outcome &out);
void run_start(const scenario &scenario, const attempt &attempt, outcome &out);
void run_frame(const scenario &scenario, const attempt &attempt, outcome &out);
void run_tag_write(const scenario &scenario, const attempt &attempt, outcome &out);
void run_stop(const scenario &scenario, const attempt &attempt, outcome &out);
void run_service_request(const scenario &scenario, const attempt &attempt, outcome &out);
void run_load(const scenario &scenario, const attempt &attempt, outcome &out);

#endif
