#include "discovery.h"
#include "json.h"

#include <gtest/gtest.h>
#include <memory>

namespace {

tag_snapshot tag_of(const std::string &name, int type, size_t size, int mode) {
    tag_snapshot tag;
    tag.name = name;
    tag.type = type;
    tag.size = size;
    tag.mode = mode;
    return tag;
}

class discovery : public ::testing::Test {
protected:
    discovery() {
        settings_.prefix = "plant/gw 1";
        settings_.discovery_prefix = "homeassistant";
    }
    json_ptr config(const tag_snapshot &tag) const {
        const discovery_message message = discovery_config(settings_, tag);
        return json_ptr(json_loads(message.payload.c_str(), 0, nullptr));
    }
    static std::string text(const json_ptr &json, const char *name) {
        const char *found = json_string_value(json_object_get(json.get(), name));
        return found ? found : "absent";
    }
    static double number(const json_ptr &json, const char *name) {
        return json_number_value(json_object_get(json.get(), name));
    }
    static size_t availability_count(const json_ptr &json) {
        return json_array_size(json_object_get(json.get(), "availability"));
    }

    bridge_settings settings_;
};

TEST_F(discovery, a_received_tag_is_a_sensor_that_is_there_while_its_value_is_good) {
    const tag_snapshot tag = tag_of("can_proprietary/drive/state_speed", 6, 2, DX_READ_ONLY);
    const discovery_message message = discovery_config(settings_, tag);
    EXPECT_EQ(message.topic.find("homeassistant/sensor/plant_gw_1/"
                                 "can_proprietary_drive_state_speed_"),
              0U)
        << message.topic;
    EXPECT_EQ(message.topic.substr(message.topic.size() - 7), "/config");
    const json_ptr json = config(tag);
    ASSERT_TRUE(json);
    EXPECT_EQ(text(json, "name"), tag.name);
    EXPECT_EQ(text(json, "state_topic"), "plant/gw 1/tags/can_proprietary/drive/state_speed");
    EXPECT_EQ(text(json, "command_topic"), "absent");
    EXPECT_EQ(text(json, "state_class"), "measurement");
    EXPECT_EQ(text(json, "availability_mode"), "all");
    EXPECT_EQ(availability_count(json), 2U);
}

TEST_F(discovery, a_tag_that_others_write_is_a_number_with_the_limits_of_its_type) {
    const tag_snapshot tag = tag_of("can_proprietary/drive/command_target", 2, 2, DX_WRITE_ONLY);
    EXPECT_EQ(discovery_config(settings_, tag).topic.find("homeassistant/number/"), 0U);
    const json_ptr json = config(tag);
    EXPECT_EQ(text(json, "command_topic"),
              "plant/gw 1/tags/can_proprietary/drive/command_target/set");
    EXPECT_EQ(number(json, "min"), -32768);
    EXPECT_EQ(number(json, "max"), 32767);
    EXPECT_EQ(number(json, "step"), 1);
    EXPECT_EQ(availability_count(json), 1U);
}

TEST_F(discovery, limits_of_all_types) {
    struct row {
        int type;
        double least, most;
    };
    const row rows[] = {{1, -128, 127},
                        {3, -2147483648.0, 2147483647},
                        {4, -9007199254740991.0, 9007199254740991.0},
                        {5, 0, 255},
                        {6, 0, 65535},
                        {7, 0, 4294967295},
                        {8, 0, 9007199254740991.0}};
    for (const row &wanted : rows) {
        const json_ptr json = config(tag_of("a", wanted.type, 8, DX_WRITE_ONLY));
        EXPECT_EQ(number(json, "min"), wanted.least) << wanted.type;
        EXPECT_EQ(number(json, "max"), wanted.most) << wanted.type;
    }
    EXPECT_GT(number(config(tag_of("a", 10, 8, DX_WRITE_ONLY)), "max"), 1e308);
}

TEST_F(discovery, raw_bytes_that_others_write_are_a_text_of_their_length) {
    const tag_snapshot tag = tag_of("raw", 13, 3, DX_WRITE_ONLY);
    EXPECT_EQ(discovery_config(settings_, tag).topic.find("homeassistant/text/"), 0U);
    const json_ptr json = config(tag);
    EXPECT_EQ(number(json, "min"), 6);
    EXPECT_EQ(number(json, "max"), 6);
}

TEST_F(discovery, names_that_read_alike_stay_apart) {
    const discovery_message one = discovery_config(settings_, tag_of("a/b", 5, 1, DX_READ_ONLY));
    const discovery_message other = discovery_config(settings_, tag_of("a_b", 5, 1, DX_READ_ONLY));
    EXPECT_NE(one.topic, other.topic);
}

TEST_F(discovery, a_long_name_of_any_bytes_gives_a_topic_and_valid_json) {
    const tag_snapshot tag = tag_of(std::string(386, '\xFF'), 5, 1, DX_READ_ONLY);
    const discovery_message message = discovery_config(settings_, tag);
    EXPECT_LT(message.topic.size(), 200U);
    EXPECT_EQ(message.topic.find('\xFF'), std::string::npos);
    EXPECT_TRUE(config(tag));
}

TEST_F(discovery, tags_of_a_device_stand_below_it) {
    tag_snapshot tag = tag_of("can_proprietary/drive/state_speed", 6, 2, DX_READ_ONLY);
    const auto device_name = [this](const tag_snapshot &of) {
        const json_ptr json = config(of);
        json_t *device = json_object_get(json.get(), "device");
        return std::string(json_string_value(json_object_get(device, "name")));
    };
    EXPECT_EQ(device_name(tag), "plant/gw 1");
    tag.device = "drive";
    EXPECT_EQ(device_name(tag), "drive");
}

TEST_F(discovery, a_removal_empties_the_same_topic) {
    const tag_snapshot tag = tag_of("can_proprietary/drive/state_speed", 6, 2, DX_READ_ONLY);
    const discovery_message message = discovery_removal(settings_, tag);
    EXPECT_EQ(message.topic, discovery_config(settings_, tag).topic);
    EXPECT_EQ(message.payload, "");
}

} // namespace
