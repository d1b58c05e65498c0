#include "sparkplug.h"
#include "sparkplug_b.pb-c.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>

namespace {

using pb_payload = Kt__SparkplugB__Payload;
using pb_metric = Kt__SparkplugB__Payload__Metric;

struct release_payload {
    void operator()(pb_payload *payload) const noexcept {
        kt__sparkplug_b__payload__free_unpacked(payload, nullptr);
    }
};
using payload_ptr = std::unique_ptr<pb_payload, release_payload>;

payload_ptr unpacked(const std::string &bytes) {
    return payload_ptr(kt__sparkplug_b__payload__unpack(
        nullptr, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data())));
}

std::string text_of(const ProtobufCBinaryData &bytes) {
    return {reinterpret_cast<const char *>(bytes.data), bytes.len};
}

void set_name(pb_metric &metric, std::string &name) {
    metric.has_name = 1;
    metric.name = {name.size(), reinterpret_cast<uint8_t *>(name.data())};
}

const pb_metric *metric_named(const payload_ptr &payload, const std::string &name) {
    for (size_t i = 0; i < payload->n_metrics; ++i) {
        if (text_of(payload->metrics[i]->name) == name) {
            return payload->metrics[i];
        }
    }
    return nullptr;
}

/** "Quality" of a metric. */
uint32_t quality_of(const pb_metric *metric) {
    return metric->properties->values[0]->int_value;
}

template <typename T>
tag_snapshot tag_of(const std::string &name, int type, T number) {
    tag_snapshot tag;
    tag.name = name;
    tag.type = type;
    tag.size = sizeof number;
    memcpy(tag.value, &number, sizeof number);
    tag.time_ms = 1000;
    tag.quality = {quality::good, quality_reason::none};
    return tag;
}

tag_snapshot worse(tag_snapshot tag, quality grade, quality_reason reason) {
    tag.quality = {grade, reason};
    return tag;
}

const tag_snapshot speed = tag_of<uint16_t>("can_proprietary/drive/state_speed", 6, 1500);
const tag_snapshot target = tag_of<int16_t>("can_proprietary/drive/command_target", 2, -5);
const tag_snapshot drive_status = tag_of<int32_t>("can_proprietary/drive/status", 3, 0);
const tag_snapshot heat = tag_of("can_proprietary/oven/state_heat", 9, 1.5F);
const tag_snapshot other = tag_of<uint8_t>("other/count", 5, 3);

class sparkplug : public ::testing::Test {
protected:
    sparkplug() {
        bridge_settings settings;
        settings.sparkplug_group = "plant";
        settings.sparkplug_node = "gw";
        sparkplug_start(node_, settings, 255);
        (void)sparkplug_will(node_, 1);
    }
    sparkplug_messages update(const std::vector<tag_snapshot> &tags) {
        sparkplug_messages out;
        sparkplug_update(node_, tags, 2000, out);
        return out;
    }
    sparkplug_messages connect() {
        sparkplug_messages out;
        sparkplug_connected(node_, 2000, out);
        return out;
    }
    static std::vector<std::string> topics(const sparkplug_messages &messages) {
        std::vector<std::string> found;
        for (const sparkplug_message &message : messages) {
            EXPECT_EQ(message.topic.substr(0, 14), "spBv1.0/plant/");
            found.push_back(message.topic.substr(14));
        }
        return found;
    }
    using names = std::vector<std::string>;

    uint64_t alias(const tag_snapshot &tag) const {
        for (const auto &[number, name] : node_.tags_by_alias) {
            if (name == tag.name) {
                return number;
            }
        }
        return 0;
    }
    sparkplug_command command(const std::string &topic, const pb_payload &payload) const {
        std::string bytes(kt__sparkplug_b__payload__get_packed_size(&payload), '\0');
        (void)kt__sparkplug_b__payload__pack(&payload, reinterpret_cast<uint8_t *>(bytes.data()));
        sparkplug_command read;
        EXPECT_TRUE(sparkplug_read_command(node_, "spBv1.0/plant/" + topic, bytes, read));
        return read;
    }
    sparkplug_command command(const std::string &topic, pb_metric &metric) const {
        pb_payload payload = KT__SPARKPLUG_B__PAYLOAD__INIT;
        pb_metric *metrics[] = {&metric};
        payload.n_metrics = 1;
        payload.metrics = metrics;
        return command(topic, payload);
    }

    sparkplug_node node_;
};

TEST_F(sparkplug, the_will_is_the_death_of_its_session) {
    sparkplug_message will = sparkplug_will(node_, 1);
    EXPECT_EQ(will.topic, "spBv1.0/plant/NDEATH/gw");
    EXPECT_EQ(will.qos, 1);
    EXPECT_FALSE(will.retain);
    const payload_ptr payload = unpacked(will.payload);
    ASSERT_TRUE(payload);
    EXPECT_FALSE(payload->has_seq);
    ASSERT_EQ(payload->n_metrics, 1U);
    EXPECT_EQ(payload->metrics[0]->long_value, 0U); // 255 was that of the session before
    will = sparkplug_will(node_, 1);
    EXPECT_EQ(unpacked(will.payload)->metrics[0]->long_value, 1U);
}

TEST_F(sparkplug, birth_and_death_of_a_session_bear_one_number) {
    const payload_ptr birth = unpacked(connect().front().payload);
    EXPECT_EQ(metric_named(birth, "bdSeq")->long_value, 255U);
    EXPECT_EQ(metric_named(birth, "bdSeq")->datatype, 4U);
    EXPECT_EQ(unpacked(sparkplug_death(node_, 3).payload)->metrics[0]->long_value, 255U);
}

TEST_F(sparkplug, nothing_is_said_before_the_connection_stands) {
    EXPECT_TRUE(update({speed, heat}).empty());
    EXPECT_EQ(topics(connect()), (names{"NBIRTH/gw", "DBIRTH/gw/drive", "DBIRTH/gw/oven"}));
}

TEST_F(sparkplug, a_birth_tells_everything_there_is) {
    (void)update({speed, target, drive_status, other});
    const sparkplug_messages births = connect();
    ASSERT_EQ(births.size(), 2U);
    const payload_ptr node = unpacked(births[0].payload);
    EXPECT_EQ(node->seq, 0U);
    EXPECT_EQ(node->timestamp, 2000U);
    EXPECT_EQ(metric_named(node, "Node Control/Rebirth")->datatype, 11U);
    EXPECT_EQ(metric_named(node, "Node Control/Rebirth")->boolean_value, 0);
    EXPECT_EQ(metric_named(node, "other/count")->int_value, 3U);
    const payload_ptr device = unpacked(births[1].payload);
    EXPECT_EQ(device->seq, 1U);
    EXPECT_EQ(device->n_metrics, 3U);
    const pb_metric *metric = metric_named(device, "state_speed");
    ASSERT_TRUE(metric);
    EXPECT_EQ(metric->datatype, 6U);
    EXPECT_EQ(metric->int_value, 1500U);
    EXPECT_EQ(metric->timestamp, 1000U);
    EXPECT_EQ(metric->alias, alias(speed));
    EXPECT_EQ(std::string(metric->properties->keys[0]), "Quality");
    EXPECT_EQ(quality_of(metric), 192U);
    EXPECT_EQ(metric_named(device, "command_target")->int_value, 0xFFFFFFFBU);
    EXPECT_NE(alias(speed), alias(target));
}

TEST_F(sparkplug, values_of_all_types) {
    const uint8_t bytes[3] = {1, 0xAB, 0xFF};
    tag_snapshot raw = tag_of<uint32_t>("c", 13, 0);
    raw.size = 3;
    memcpy(raw.value, bytes, sizeof bytes);
    (void)update({tag_of<int8_t>("i8", 1, -1),
                  tag_of<int64_t>("i64", 4, -2),
                  tag_of<uint32_t>("u32", 7, 0xFFFFFFFF),
                  tag_of<uint64_t>("u64", 8, UINT64_MAX),
                  tag_of("f", 9, 0.5F),
                  tag_of("d", 10, 0.1),
                  raw});
    const payload_ptr birth = unpacked(connect().front().payload);
    EXPECT_EQ(metric_named(birth, "i8")->int_value, 0xFFFFFFFFU);
    EXPECT_EQ(metric_named(birth, "i64")->long_value, static_cast<uint64_t>(-2));
    EXPECT_EQ(metric_named(birth, "u32")->int_value, 0xFFFFFFFFU);
    EXPECT_EQ(metric_named(birth, "u64")->long_value, UINT64_MAX);
    EXPECT_EQ(metric_named(birth, "f")->float_value, 0.5F);
    EXPECT_EQ(metric_named(birth, "d")->double_value, 0.1);
    const pb_metric *metric = metric_named(birth, "c");
    EXPECT_EQ(metric->datatype, 17U);
    ASSERT_EQ(metric->bytes_value.len, 3U);
    EXPECT_EQ(memcmp(metric->bytes_value.data, bytes, 3), 0);
}

TEST_F(sparkplug, data_names_its_metrics_by_alias) {
    (void)update({speed, target, other});
    (void)connect();
    const sparkplug_messages data = update({speed, other, target});
    EXPECT_EQ(topics(data), (names{"NDATA/gw", "DDATA/gw/drive"}));
    const payload_ptr payload = unpacked(data[1].payload);
    ASSERT_EQ(payload->n_metrics, 2U);
    EXPECT_FALSE(payload->metrics[0]->has_name);
    EXPECT_EQ(payload->metrics[0]->alias, alias(speed));
    EXPECT_EQ(payload->metrics[0]->int_value, 1500U);
}

TEST_F(sparkplug, seq_counts_every_message_and_goes_from_255_to_0) {
    (void)update({speed});
    const sparkplug_messages births = connect();
    EXPECT_EQ(unpacked(births[1].payload)->seq, 1U);
    for (uint64_t i = 2; i < 600; ++i) {
        EXPECT_EQ(unpacked(update({speed}).front().payload)->seq, i % 256);
    }
    EXPECT_EQ(unpacked(connect().front().payload)->seq, 0U);
}

TEST_F(sparkplug, a_value_nobody_has_seen_is_null_and_stale) {
    (void)update({worse(speed, quality::uncertain, quality_reason::no_frame_yet)});
    const sparkplug_messages births = connect();
    ASSERT_EQ(births.size(), 2U);
    const payload_ptr payload = unpacked(births[1].payload);
    const pb_metric *metric = metric_named(payload, "state_speed");
    EXPECT_TRUE(metric->is_null);
    EXPECT_EQ(metric->value_case, KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE__NOT_SET);
    EXPECT_EQ(quality_of(metric), 500U);
    EXPECT_EQ(std::string(metric->properties->values[1]->string_value), "no_frame_yet");
}

TEST_F(sparkplug, one_bad_value_is_data_of_a_device_that_lives) {
    (void)update({speed, target, drive_status});
    (void)connect();
    const sparkplug_messages data =
        update({worse(target, quality::bad, quality_reason::fault_protection)});
    EXPECT_EQ(topics(data), names{"DDATA/gw/drive"});
    const payload_ptr payload = unpacked(data[0].payload);
    EXPECT_EQ(quality_of(payload->metrics[0]), 0U);
    EXPECT_EQ(payload->metrics[0]->int_value, 0xFFFFFFFBU);
}

TEST_F(sparkplug, a_silent_device_dies_and_is_born_again) {
    (void)update({speed, target, drive_status, heat});
    (void)connect();
    const tag_snapshot late_speed = worse(speed, quality::bad, quality_reason::device_timeout);
    const tag_snapshot late_target = worse(target, quality::bad, quality_reason::device_timeout);
    EXPECT_EQ(topics(update({late_speed})), names{"DDATA/gw/drive"});
    const sparkplug_messages death = update({late_target, drive_status});
    EXPECT_EQ(topics(death), names{"DDEATH/gw/drive"});
    const payload_ptr payload = unpacked(death[0].payload);
    EXPECT_TRUE(payload->has_seq);
    EXPECT_EQ(payload->n_metrics, 0U);
    EXPECT_TRUE(update({late_speed, drive_status}).empty());
    EXPECT_EQ(topics(update({heat})), names{"DDATA/gw/oven"});
    EXPECT_EQ(topics(update({speed})), names{"DBIRTH/gw/drive"});
    EXPECT_EQ(topics(update({speed})), names{"DDATA/gw/drive"});
}

TEST_F(sparkplug, a_dead_device_is_not_born_with_the_connection) {
    (void)update({worse(speed, quality::bad, quality_reason::service_down), drive_status});
    EXPECT_EQ(topics(connect()), names{"NBIRTH/gw"});
    EXPECT_EQ(topics(update({speed})), names{"DBIRTH/gw/drive"});
}

TEST_F(sparkplug, a_device_with_a_status_alone_lives_while_it_is_known) {
    (void)update({drive_status});
    EXPECT_EQ(topics(connect()), (names{"NBIRTH/gw", "DBIRTH/gw/drive"}));
    EXPECT_EQ(topics(update({worse(drive_status, quality::bad, quality_reason::service_down)})),
              names{"DDEATH/gw/drive"});
}

TEST_F(sparkplug, a_new_metric_makes_a_new_birth) {
    (void)update({speed, other});
    (void)connect();
    const sparkplug_messages births = update({target, speed});
    EXPECT_EQ(topics(births), names{"DBIRTH/gw/drive"});
    EXPECT_EQ(unpacked(births[0].payload)->n_metrics, 2U);
    EXPECT_EQ(topics(update({tag_of<uint8_t>("another", 5, 1)})),
              (names{"NBIRTH/gw", "DBIRTH/gw/drive"}));
}

TEST_F(sparkplug, a_metric_of_another_type_makes_a_new_birth) {
    (void)update({speed});
    (void)connect();
    EXPECT_EQ(topics(update({tag_of<uint32_t>(speed.name, 7, 70000)})), names{"DBIRTH/gw/drive"});
}

TEST_F(sparkplug, a_removed_metric_is_left_out_and_the_last_one_ends_its_device) {
    (void)update({speed, target});
    (void)connect();
    tag_snapshot gone = target;
    gone.removed = true;
    const sparkplug_messages birth = update({gone});
    EXPECT_EQ(topics(birth), names{"DBIRTH/gw/drive"});
    EXPECT_EQ(unpacked(birth[0].payload)->n_metrics, 1U);
    gone = speed;
    gone.removed = true;
    EXPECT_EQ(topics(update({gone})), names{"DDEATH/gw/drive"});
    EXPECT_TRUE(node_.tags_by_alias.empty());
    EXPECT_TRUE(update({gone}).empty());
    EXPECT_EQ(topics(connect()), names{"NBIRTH/gw"});
}

TEST_F(sparkplug, a_device_name_may_hold_what_a_topic_cannot) {
    tag_snapshot tag = tag_of<uint8_t>("can_proprietary/a/b+c/state_x", 5, 1);
    (void)update({tag});
    EXPECT_EQ(topics(connect()), (names{"NBIRTH/gw", "DBIRTH/gw/a"}));
    tag.device = "a/b+c";
    EXPECT_EQ(topics(update({tag})), (names{"DDEATH/gw/a", "DBIRTH/gw/a%2Fb%2Bc"}));
}

TEST_F(sparkplug, after_a_lost_connection_everything_is_born_again) {
    (void)update({speed});
    (void)connect();
    sparkplug_disconnected(node_);
    EXPECT_TRUE(update({speed, heat}).empty());
    (void)sparkplug_will(node_, 1);
    const sparkplug_messages births = connect();
    EXPECT_EQ(topics(births), (names{"NBIRTH/gw", "DBIRTH/gw/drive", "DBIRTH/gw/oven"}));
    EXPECT_EQ(metric_named(unpacked(births[0].payload), "bdSeq")->long_value, 0U);
}

TEST_F(sparkplug, commands_come_to_node_and_devices) {
    EXPECT_EQ(sparkplug_filters(node_),
              (names{"spBv1.0/plant/NCMD/gw", "spBv1.0/plant/DCMD/gw/+"}));
    sparkplug_command read;
    for (const char *topic : {"spBv1.0/plant/NCMD/other",
                              "spBv1.0/plant/DCMD/gw",
                              "kt/a/tags/a/set",
                              "spBv1.0/plant/NDATA/gw",
                              "spBv1.0/other/NCMD/gw"}) {
        EXPECT_FALSE(sparkplug_read_command(node_, topic, "", read)) << topic;
    }
}

TEST_F(sparkplug, a_host_may_ask_for_a_rebirth) {
    std::string name = "Node Control/Rebirth";
    pb_metric metric = KT__SPARKPLUG_B__PAYLOAD__METRIC__INIT;
    set_name(metric, name);
    metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_BOOLEAN_VALUE;
    metric.boolean_value = 1;
    EXPECT_TRUE(command("NCMD/gw", metric).rebirth);
    metric.boolean_value = 0;
    EXPECT_FALSE(command("NCMD/gw", metric).rebirth);
}

TEST_F(sparkplug, a_command_writes_by_alias_or_by_name) {
    (void)update({target, other});
    std::string name = "command_target";
    pb_metric metric = KT__SPARKPLUG_B__PAYLOAD__METRIC__INIT;
    set_name(metric, name);
    metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_INT_VALUE;
    metric.int_value = 0xFFFFFFF6;
    sparkplug_command read = command("DCMD/gw/drive", metric);
    ASSERT_EQ(read.writes.size(), 1U);
    EXPECT_EQ(read.writes[0].tag, target.name);
    EXPECT_EQ(read.writes[0].value, "-10");
    metric.has_name = 0;
    metric.has_alias = 1;
    metric.alias = alias(target);
    metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_DOUBLE_VALUE;
    metric.double_value = 12;
    read = command("DCMD/gw/drive", metric);
    ASSERT_EQ(read.writes.size(), 1U);
    EXPECT_EQ(read.writes[0].value, "12");
    metric.alias = alias(other);
    read = command("NCMD/gw", metric);
    ASSERT_EQ(read.writes.size(), 1U);
    EXPECT_EQ(read.writes[0].tag, other.name);
}

TEST_F(sparkplug, a_text_does_not_end_at_a_zero_byte) {
    (void)update({target});
    std::string name = "command_target";
    std::string value("12\0 or more", 11);
    pb_metric metric = KT__SPARKPLUG_B__PAYLOAD__METRIC__INIT;
    set_name(metric, name);
    metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_STRING_VALUE;
    metric.string_value = {value.size(), reinterpret_cast<uint8_t *>(value.data())};
    sparkplug_command read = command("DCMD/gw/drive", metric);
    ASSERT_EQ(read.writes.size(), 1U);
    EXPECT_EQ(read.writes[0].value, value); // and is refused as no number
    name += std::string("\0 of another", 12);
    set_name(metric, name);
    read = command("DCMD/gw/drive", metric);
    EXPECT_TRUE(read.writes.empty());
    EXPECT_EQ(read.refused, names{"metric " + name + ": unknown"});
}

TEST_F(sparkplug, an_alias_of_another_device_is_unknown) {
    (void)update({target, heat});
    pb_metric metric = KT__SPARKPLUG_B__PAYLOAD__METRIC__INIT;
    metric.has_alias = 1;
    metric.alias = alias(heat);
    metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_INT_VALUE;
    const sparkplug_command read = command("DCMD/gw/drive", metric);
    EXPECT_TRUE(read.writes.empty());
    EXPECT_EQ(read.refused, names{"alias " + std::to_string(alias(heat)) + ": unknown"});
}

TEST_F(sparkplug, a_command_without_a_value_is_refused) {
    (void)update({target});
    std::string name = "command_target";
    pb_metric metric = KT__SPARKPLUG_B__PAYLOAD__METRIC__INIT;
    set_name(metric, name);
    EXPECT_EQ(command("DCMD/gw/drive", metric).refused,
              names{"metric command_target: holds no value"});
    metric.value_case = KT__SPARKPLUG_B__PAYLOAD__METRIC__VALUE_INT_VALUE;
    metric.has_is_null = metric.is_null = 1;
    EXPECT_EQ(command("DCMD/gw/drive", metric).refused,
              names{"metric command_target: holds no value"});
    EXPECT_EQ(command("DCMD/gw/oven", metric).refused, names{"metric command_target: unknown"});
}

TEST_F(sparkplug, hostile_payloads_are_refused) {
    (void)update({target});
    const std::string garbage[] = {"\xFF",
                                   std::string(100, '\x12'),
                                   "{\"value\":1}",
                                   std::string("\x12\x7F", 2),
                                   std::string(70000, '\0')};
    for (const std::string &bytes : garbage) {
        sparkplug_command read;
        EXPECT_TRUE(sparkplug_read_command(node_, "spBv1.0/plant/DCMD/gw/drive", bytes, read));
        EXPECT_TRUE(read.writes.empty());
        EXPECT_FALSE(read.rebirth);
        EXPECT_EQ(read.refused, names{"a command that is no payload of Sparkplug B"});
    }
}

TEST_F(sparkplug, every_cut_and_every_flipped_byte_of_a_payload_is_harmless) {
    (void)update({speed, target, heat, other});
    const std::string whole = connect()[1].payload;
    for (size_t at = 0; at < whole.size(); ++at) {
        sparkplug_command read;
        std::string flipped = whole;
        flipped[at] = static_cast<char>(~flipped[at]);
        EXPECT_TRUE(sparkplug_read_command(
            node_, "spBv1.0/plant/DCMD/gw/drive", whole.substr(0, at), read));
        EXPECT_TRUE(sparkplug_read_command(node_, "spBv1.0/plant/DCMD/gw/drive", flipped, read));
        EXPECT_FALSE(read.rebirth);
    }
}

} // namespace
