#ifndef KT_TESTS_FAKE_EVENT_AGENT_H
#define KT_TESTS_FAKE_EVENT_AGENT_H

#include <string>
#include <vector>

/* The event library and the address of the gateway. One thread. */

struct fake_event_agent {
    bool missing = false;  /* event_create() gives nothing */
    bool callback = false; /* a callback or a context was handed over */
    int created = 0;
    int destroyed = 0;
    int address_asked_of = -1;         /* interface */
    const char *address = "192.0.2.7"; /* nullptr: the gateway has none */
    std::vector<std::string> events;   /* "name|host|message"; "no handle|" in front without one */

    std::vector<std::string> take() {
        std::vector<std::string> taken;
        taken.swap(events);
        return taken;
    }
};

extern fake_event_agent g_fake_event_agent;

#endif
