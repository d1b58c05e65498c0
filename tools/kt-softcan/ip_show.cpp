#include "commands.h"

#include <cstdarg>
#include <cstdio>

namespace softcan {
namespace {

// Bit timing as a controller with 16 time quanta per bit has it.
struct bit_timing {
    unsigned tq_ns;
    unsigned prop_seg = 6;
    unsigned phase_seg1 = 7;
    unsigned phase_seg2 = 2;
    unsigned sjw = 1;
};

constexpr const char *sample_point = "0.875";

[[gnu::format(printf, 1, 2)]] std::string format(const char *text, ...) {
    char line[512];
    va_list list;
    va_start(list, text);
    const int length = vsnprintf(line, sizeof(line), text, list);
    va_end(list);
    return {line, length < 0 ? 0 : std::min(static_cast<std::size_t>(length), sizeof(line) - 1)};
}

bit_timing timing_of(std::uint32_t bitrate) {
    return {1'000'000'000U / (bitrate * 16)};
}

bool is_up(const port_record &port) {
    return port.up.load(std::memory_order_relaxed) != 0;
}

const char *flags_text(const port_record &port) {
    return is_up(port) ? "NOARP,UP,LOWER_UP,ECHO" : "NOARP,ECHO";
}

const char *queue_text(const port_record &port) {
    return is_up(port) ? "pfifo_fast" : "noop";
}

const char *operation_text(const port_record &port) {
    return is_up(port) ? "UP" : "DOWN";
}

std::string head_text(const port_record &port, const char *line_end) {
    return format("%u: %s: <%s> mtu 16 qdisc %s state %s mode DEFAULT group default qlen %u%s"
                  "    link/can ",
                  port.ifindex.load(),
                  port.name,
                  flags_text(port),
                  queue_text(port),
                  operation_text(port),
                  port.txqueuelen.load(),
                  line_end);
}

std::string timing_text(std::uint32_t bitrate, const char *line_end) {
    if (bitrate == 0) {
        return {};
    }
    const bit_timing timing = timing_of(bitrate);
    return format("%s\t  bitrate %u sample-point %s"
                  "%s\t  tq %u prop-seg %u phase-seg1 %u phase-seg2 %u sjw %u",
                  line_end,
                  bitrate,
                  sample_point,
                  line_end,
                  timing.tq_ns,
                  timing.prop_seg,
                  timing.phase_seg1,
                  timing.phase_seg2,
                  timing.sjw);
}

std::string details_text(const port_record &port, const char *line_end) {
    std::string text = format(" promiscuity 0  allmulti 0 minmtu 0 maxmtu 0 %s"
                              "    can state %s ",
                              line_end,
                              state_name(port));
    if (is_up(port)) {
        text += "(berr-counter tx 0 rx 0) ";
    }
    text += format("restart-ms %u ", port.restart_ms.load());
    text += timing_text(port.bitrate.load(), line_end);
    text += format("%s\t  termination %u [ 0, 120 ] ", line_end, port.termination_ohm.load());
    return text + "numtxqueues 1 numrxqueues 1 gso_max_size 65536 gso_max_segs 65535 ";
}

std::string flags_json(const port_record &port) {
    return is_up(port) ? R"(["NOARP","UP","LOWER_UP","ECHO"])" : R"(["NOARP","ECHO"])";
}

std::string head_json(const port_record &port) {
    return format(R"({"ifindex":%u,"ifname":"%s","flags":%s,"mtu":16,"qdisc":"%s",)"
                  R"("operstate":"%s","linkmode":"DEFAULT","group":"default","txqlen":%u,)"
                  R"("link_type":"can")",
                  port.ifindex.load(),
                  port.name,
                  flags_json(port).c_str(),
                  queue_text(port),
                  operation_text(port),
                  port.txqueuelen.load());
}

std::string timing_json(std::uint32_t bitrate) {
    if (bitrate == 0) {
        return {};
    }
    const bit_timing timing = timing_of(bitrate);
    return format(R"(,"bittiming":{"bitrate":%u,"sample_point":"%s","tq":%u,"prop_seg":%u,)"
                  R"("phase_seg1":%u,"phase_seg2":%u,"sjw":%u})",
                  bitrate,
                  sample_point,
                  timing.tq_ns,
                  timing.prop_seg,
                  timing.phase_seg1,
                  timing.phase_seg2,
                  timing.sjw);
}

std::string details_json(const port_record &port) {
    const char *counters = is_up(port) ? R"("berr_counter":{"tx":0,"rx":0},)" : "";
    return format(R"(,"promiscuity":0,"min_mtu":0,"max_mtu":0,"linkinfo":{"info_kind":"can",)"
                  R"("info_data":{"state":"%s",%s"restart_ms":%u%s,"termination":%u}},)"
                  R"("num_tx_queues":1,"num_rx_queues":1)",
                  state_name(port),
                  counters,
                  port.restart_ms.load(),
                  timing_json(port.bitrate.load()).c_str(),
                  port.termination_ohm.load());
}

} // namespace

std::string show_port(const port_record &port, const show_style &style) {
    if (style.json) {
        return head_json(port) + (style.details ? details_json(port) : "") + "}";
    }
    if (style.brief) {
        return format("%-16s %-14s <%s> \n", port.name, operation_text(port), flags_text(port));
    }
    const char *line_end = style.one_line ? "\\" : "\n";
    return head_text(port, line_end) + (style.details ? details_text(port, line_end) : "") + "\n";
}

} // namespace softcan
