#ifndef KT_DX_MQTT_EVENTS_H
#define KT_DX_MQTT_EVENTS_H

#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>

/**
 * Follows the file of the event agent, /run/kt-event-agent/events.jsonl below KT_ROOT: one JSON
 * object in each line, begun anew when it has grown to its limit. Lines that were there before the
 * first look are old news and not reported.
 *
 * THREAD SAFETY. One thread.
 */
class event_follower {
public:
    event_follower();
    ~event_follower();
    event_follower(const event_follower &) = delete;
    event_follower &operator=(const event_follower &) = delete;

    /** Readable when there may be news; -1 where the kernel gives none: look from time to time. */
    int descriptor() const { return watch_; }

    /**
     * Report complete new lines, without their ends. Looks for the file when there was none.
     * @return number of lines
     */
    int read(const std::function<void(std::string_view)> &line);

private:
    void forget_notices();
    void watch_folder();
    bool open_file(bool from_start);
    bool replaced() const;
    int read_rest(const std::function<void(std::string_view)> &line);

    std::string folder_;
    std::string path_;
    int watch_ = -1;        // inotify
    int folder_watch_ = -1; // of folder_
    int file_ = -1;
    off_t offset_ = 0;
    std::string partial_;
    bool skipping_ = false; // a line longer than any event: left out to its end
};

#endif
