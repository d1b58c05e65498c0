#include <kt/dx_client.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

/*
 * tag_twins read|write NAME: another application that reads, or writes, a raw tag of eight bytes
 * all of which are the same, whether there is a service or not. SIGTERM ends it; the reader then
 * prints how often it read and how often the bytes differed.
 */

namespace {

constexpr uint64_t every_byte = 0x0101010101010101ULL;
volatile sig_atomic_t ended = 0;

void end(int /*signal*/) {
    ended = 1;
}

void pause_for(long nanoseconds) {
    const timespec pause{0, nanoseconds};
    (void)nanosleep(&pause, nullptr); // a signal may cut it short
}

struct counts {
    unsigned long long reads = 0;
    unsigned long long torn = 0;
};

void read_once(dx_client *client, const dx_tag_info &info, counts *sums) {
    dx_sample sample{};
    if (dx_client_read(client, &info, &sample) != DX_OK) {
        return;
    }
    uint64_t value = 0;
    memcpy(&value, sample.value, sizeof value);
    sums->reads++;
    sums->torn += value == (value & 0xff) * every_byte ? 0 : 1;
}

/** Until the tag goes or the end comes. */
void work_on(dx_client *client, const char *name, bool writes, counts *sums) {
    dx_tag_info info{};
    if (dx_client_find(client, name, &info) != DX_OK) {
        return;
    }
    for (unsigned number = 0; number < 2000 && ended == 0; number++) {
        if (!writes) {
            read_once(client, info, sums);
        } else {
            const uint64_t value = (number & 0xff) * every_byte;
            (void)dx_client_write(
                client, &info, &value, sizeof value); // a dead provider is looked for
        }
        if (number % 16 == 0) {
            pause_for(200000); // leave the processor to the service
        }
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        (void)fprintf(stderr, "usage: tag_twins read|write NAME\n");
        return 2;
    }
    (void)signal(SIGTERM, end);
    counts sums;
    while (ended == 0) {
        dx_client *client = nullptr;
        if (dx_client_open(&client) == DX_OK) {
            work_on(client, argv[2], strcmp(argv[1], "write") == 0, &sums);
            dx_client_close(client);
        }
        pause_for(1000000);
    }
    (void)printf("%llu %llu\n", sums.reads, sums.torn);
    return 0;
}
