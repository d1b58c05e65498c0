#include "platform/scratch_folder.h"
#include "settings.h"

#include <sys/stat.h>
#include <unistd.h>

namespace {

class settings : public scratch_folder {
protected:
    /** The reason why a file with that text is refused, empty when it is not. */
    std::string refusal(const std::string &text) {
        write(file_, text);
        std::string error;
        return read_settings(file_.c_str(), read_, error) == 0 ? "" : without_folder(error);
    }
    /** A file with those rights. */
    std::string secret(const std::string &name, const std::string &text, mode_t mode = 0600) {
        write(path(name), text);
        EXPECT_EQ(chmod(path(name).c_str(), mode), 0);
        return path(name);
    }
    std::string without_folder(std::string text) const {
        for (size_t at = text.find(path_); at != std::string::npos; at = text.find(path_)) {
            (void)text.erase(at, path_.size() + 1);
        }
        return text;
    }

    std::string file_ = path("conf");
    bridge_settings read_;
};

TEST_F(settings, an_empty_file_gives_the_defaults) {
    ASSERT_EQ(refusal(""), "");
    EXPECT_EQ(read_.broker_host, "127.0.0.1");
    EXPECT_EQ(read_.broker_port, 1883);
    EXPECT_EQ(read_.prefix.substr(0, 3), "kt/");
    EXPECT_GT(read_.prefix.size(), 3U);
    EXPECT_EQ(read_.client_id, "kt-dx-mqtt-" + read_.prefix.substr(3));
    EXPECT_EQ(read_.sparkplug_node, read_.prefix.substr(3));
    EXPECT_EQ(read_.keepalive_s, 30);
    EXPECT_EQ(read_.protocol, mqtt_protocol::v5);
    EXPECT_EQ(read_.qos, 1);
    EXPECT_EQ(read_.username, "");
    EXPECT_EQ(read_.tls_ca, "");
    EXPECT_EQ(read_.rest_url, "");
    EXPECT_EQ(read_.diagnostics_period_s, 10);
    EXPECT_FALSE(read_.discovery);
    EXPECT_EQ(read_.discovery_prefix, "homeassistant");
    EXPECT_FALSE(read_.sparkplug);
    EXPECT_EQ(read_.write_queue_length, 256);
    EXPECT_EQ(read_.event_queue_length, 256);
    EXPECT_EQ(read_.reconnect_min_ms, 1000);
    EXPECT_EQ(read_.reconnect_max_ms, 60000);
}

TEST_F(settings, every_key_is_read) {
    const std::string user = secret("user", "plant\n");
    const std::string password = secret("password", "p w=#\r\n", 0400);
    const std::string token = secret("token", "t0ken");
    const std::string key = secret("key.pem", "key");
    const std::string cert = secret("cert.pem", "cert", 0644);
    ASSERT_EQ(refusal("# the plant's broker\n\n"
                      "broker_host = broker.plant\n  broker_port=8884\t\nclient_id = gw 1\n"),
              "conf:5: client_id: must not hold blanks");
    ASSERT_EQ(refusal("broker_host = broker.plant\r\nbroker_port=8884\nclient_id = gw-1\n"
                      "prefix = plant/hall 1\nkeepalive = 5\nprotocol = 3.1.1\nqos = 2\n"
                      "username_file = " +
                      user + "\npassword_file = " + password + "\ntls_ca = " + cert +
                      "\ntls_cert = " + cert + "\ntls_key = " + key +
                      "\ntls_insecure = off\nrest_url = https://127.0.0.1:8080/\n"
                      "rest_token_file = " +
                      token +
                      "\ndiagnostics_period = 0\ndiscovery = homeassistant\ndiscovery_prefix = ha\n"
                      "sparkplug = on\nsparkplug_group = hall\nsparkplug_node = gw\n"
                      "write_queue = 1\nevent_queue = 65536\nreconnect_min = 0.1\n"
                      "reconnect_max = 2.5"),
              "");
    EXPECT_EQ(read_.broker_host, "broker.plant");
    EXPECT_EQ(read_.broker_port, 8884);
    EXPECT_EQ(read_.client_id, "gw-1");
    EXPECT_EQ(read_.prefix, "plant/hall 1");
    EXPECT_EQ(read_.keepalive_s, 5);
    EXPECT_EQ(read_.protocol, mqtt_protocol::v3_1_1);
    EXPECT_EQ(read_.qos, 2);
    EXPECT_EQ(read_.username, "plant");
    EXPECT_EQ(read_.password, "p w=#");
    EXPECT_EQ(read_.tls_ca, cert);
    EXPECT_EQ(read_.tls_cert, cert);
    EXPECT_EQ(read_.tls_key, key);
    EXPECT_EQ(read_.rest_url, "https://127.0.0.1:8080");
    EXPECT_EQ(read_.rest_token, "t0ken");
    EXPECT_EQ(read_.diagnostics_period_s, 0);
    EXPECT_TRUE(read_.discovery);
    EXPECT_EQ(read_.discovery_prefix, "ha");
    EXPECT_TRUE(read_.sparkplug);
    EXPECT_EQ(read_.sparkplug_group, "hall");
    EXPECT_EQ(read_.sparkplug_node, "gw");
    EXPECT_EQ(read_.write_queue_length, 1);
    EXPECT_EQ(read_.event_queue_length, 65536);
    EXPECT_EQ(read_.reconnect_min_ms, 100);
    EXPECT_EQ(read_.reconnect_max_ms, 2500);
}

TEST_F(settings, with_tls_the_port_is_that_of_tls) {
    ASSERT_EQ(refusal("tls_ca = " + secret("ca.pem", "ca", 0644)), "");
    EXPECT_EQ(read_.broker_port, 8883);
}

struct refused_line {
    const char *line;
    const char *reason;
};

TEST_F(settings, each_refusal_names_file_line_key_and_the_way_out) {
    const refused_line rows[] = {
        {"broker", "a line is \"key = value\" or begins with \"#\""},
        {"qos =", "qos: has no value: give one or take the line away"},
        {"qos = 3", "qos: must be a number from 0 to 2"},
        {"qos = 1x", "qos: must be a number from 0 to 2"},
        {"broker_port = 0", "broker_port: must be a number from 1 to 65535"},
        {"broker_port = 65536", "broker_port: must be a number from 1 to 65535"},
        {"broker_port = 99999999999", "broker_port: must be a number from 1 to 65535"},
        {"keepalive = 4", "keepalive: must be a number from 5 to 3600"},
        {"diagnostics_period = -1", "diagnostics_period: must be a number from 0 to 86400"},
        {"write_queue = 0", "write_queue: must be a number from 1 to 65536"},
        {"event_queue = 65537", "event_queue: must be a number from 1 to 65536"},
        {"reconnect_min = 0.01", "reconnect_min: must be seconds from 0.1 to 3600"},
        {"reconnect_max = nan", "reconnect_max: must be seconds from 0.1 to 3600"},
        {"protocol = 3.1", "protocol: must be 3.1.1 or 5"},
        {"discovery = on", "discovery: must be off or homeassistant"},
        {"sparkplug = yes", "sparkplug: must be on or off"},
        {"tls_insecure = 1", "tls_insecure: must be on or off"},
        {"tls_ca = ca.pem",
         "tls_ca: must be a path from the root, such as /etc/kt-dx-mqtt/password"},
        {"prefix = a/+",
         "prefix: must not hold \"+\" or \"#\": it stands in topics that are published"},
        {"prefix = $SYS", "prefix: must not begin with \"$\" or \"/\" nor end with \"/\""},
        {"prefix = a/", "prefix: must not begin with \"$\" or \"/\" nor end with \"/\""},
        {"prefix = spBv1.0/a",
         "prefix: must not begin with \"spBv1.0\", where the topics of Sparkplug B are"},
        {"sparkplug_group = a/b",
         "sparkplug_group: must not hold \"+\", \"#\" or \"/\": it is one level of a topic"},
        {"sparkplug = on",
         "sparkplug: needs sparkplug_group: the name under which the plant's nodes stand"},
        {"rest_url = 127.0.0.1:8080",
         "rest_url: must be a URL such as http://127.0.0.1:8080/CAN-proprietary"},
        {"rest_url = http://u:p@host",
         "rest_url: must not hold a user or password: name a file with the token in "
         "rest_token_file"},
        {"client_id = a\x01", "client_id: holds control characters or bytes that are no UTF-8"},
        {"client_id = \xFF", "client_id: holds control characters or bytes that are no UTF-8"},
        {"tls_cert = /c", "tls_cert: needs tls_key: give both or none"},
        {"tls_key = /k", "tls_key: needs tls_cert: give both or none"},
        {"tls_insecure = on", "tls_insecure: does nothing without tls_ca"},
        {"password_file = /p", "password_file: does nothing without username_file: give both"},
        {"rest_token_file = /t", "rest_token_file: does nothing without rest_url: give both"},
        {"reconnect_min = 61", "reconnect_min: reconnect_min must not be above reconnect_max"},
        {"reconnect_max = 0.5", "reconnect_max: reconnect_min must not be above reconnect_max"},
        {"password = hunter2",
         "password: no secret belongs into this file: put it into a file of its own and name that "
         "in password_file"},
    };
    for (const refused_line &row : rows) {
        EXPECT_EQ(refusal("\n" + std::string(row.line) + "\n"),
                  "conf:2: " + std::string(row.reason));
    }
}

TEST_F(settings, an_unknown_key_is_told_which_there_are) {
    const std::string text = refusal("brokr_host = a");
    EXPECT_EQ(text.find("conf:1: brokr_host: no such key; there are broker_host, broker_port, "),
              0U)
        << text;
    EXPECT_NE(text.find("reconnect_max"), std::string::npos);
}

TEST_F(settings, a_key_that_stands_there_twice_is_refused) {
    EXPECT_EQ(refusal("qos = 1\n#\nqos = 1\n"),
              "conf:3: qos: stands there twice: take one of the lines away");
}

TEST_F(settings, certificates_do_nothing_without_an_authority) {
    EXPECT_EQ(
        refusal("tls_cert = /c\ntls_key = /k\n"),
        "conf:1: tls_cert: does nothing without tls_ca: name the file with the certificate of "
        "the authority that signed the broker's");
}

TEST_F(settings, a_name_that_is_not_compared_is_for_this_machine_only) {
    const std::string tls = "tls_ca = " + secret("ca.pem", "ca", 0644) + "\ntls_insecure = on\n";
    for (const char *host : {"127.0.0.1", "127.9.9.9", "::1", "localhost"}) {
        EXPECT_EQ(refusal(tls + "broker_host = " + host), "") << host;
    }
    for (const char *host :
         {"128.0.0.1", "0.0.0.0", "localhost.plant", "127.0.0.1.plant", "fe80::1"}) {
        EXPECT_EQ(refusal(tls + "broker_host = " + host),
                  "conf:2: tls_insecure: only for a broker on this machine: let broker_host be the "
                  "name in the broker's certificate")
            << host;
    }
}

TEST_F(settings, a_file_that_cannot_be_read_is_refused) {
    std::string error;
    EXPECT_EQ(read_settings(path("none").c_str(), read_, error), -1);
    EXPECT_EQ(without_folder(error), "none: cannot be read: No such file or directory");
    EXPECT_EQ(read_settings(path_.c_str(), read_, error), -1);
    EXPECT_EQ(error, path_ + ": cannot be read: Is a directory");
}

TEST_F(settings, a_refused_file_leaves_the_settings_alone) {
    read_.broker_host = "before";
    EXPECT_NE(refusal("broker_host = after\nqos = 9"), "");
    EXPECT_EQ(read_.broker_host, "before");
}

TEST_F(settings, a_secret_is_for_the_bridge_alone) {
    const std::string with = "username_file = " + path("user");
    (void)secret("user", "plant", 0644);
    EXPECT_EQ(refusal(with),
              std::string("conf:1: username_file: user is open to others (mode 644): take their "
                          "rights away (chmod ") +
                  (geteuid() == 0 ? "640)" : "600)"));
    (void)secret("user", "plant", 0660);
    EXPECT_EQ(refusal(with).substr(0, 59),
              "conf:1: username_file: user is open to others (mode 660): t");
    (void)secret("user", "plant", 0604);
    EXPECT_NE(refusal(with), "");
    (void)secret("user", "plant", 0400);
    EXPECT_EQ(refusal(with), "");
}

TEST_F(settings, a_group_reads_a_secret_only_when_root_gave_it_to_the_bridge) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give files away";
    }
    const std::string with = "username_file = " + path("user");
    (void)secret("user", "plant", 0640);
    EXPECT_EQ(refusal(with), "");
    ASSERT_EQ(chown(path("user").c_str(), 0, 4711), 0);
    EXPECT_EQ(
        refusal(with),
        "conf:1: username_file: user can be read by its group (mode 640): allowed only when it "
        "belongs to root and its group is one of the bridge's own (chmod 600)");
    ASSERT_EQ(chown(path("user").c_str(), 4711, 0), 0);
    ASSERT_EQ(chmod(path("user").c_str(), 0600), 0);
    EXPECT_EQ(
        refusal(with),
        "conf:1: username_file: user belongs to user 4711: give it to root or to the user who "
        "runs the bridge (chown)");
}

TEST_F(settings, a_secret_is_one_line_of_a_regular_file) {
    const std::string with = "username_file = " + path("user");
    EXPECT_EQ(refusal(with),
              "conf:1: username_file: user cannot be read: No such file or directory");
    (void)secret("user", "\n\n");
    EXPECT_EQ(refusal(with), "conf:1: username_file: user is empty");
    (void)secret("user", "a\nb\n");
    EXPECT_EQ(refusal(with), "conf:1: username_file: user must hold one line of text");
    (void)secret("user", std::string("a\0b", 3));
    EXPECT_EQ(refusal(with), "conf:1: username_file: user must hold one line of text");
    (void)secret("user", std::string(4097, 'x'));
    EXPECT_EQ(refusal(with), "conf:1: username_file: user has more than 4096 bytes");
    std::filesystem::remove(path("user"));
    ASSERT_EQ(mkfifo(path("user").c_str(), 0600), 0);
    EXPECT_EQ(refusal(with), "conf:1: username_file: user is not a regular file");
}

TEST_F(settings, a_key_of_tls_is_a_secret_and_certificates_are_not) {
    const std::string pem = secret("c.pem", "c", 0644);
    (void)secret("k.pem", "k", 0644);
    const std::string with =
        "tls_ca = " + pem + "\ntls_cert = " + pem + "\ntls_key = " + path("k.pem");
    EXPECT_EQ(refusal(with).substr(0, 46), "conf:3: tls_key: k.pem is open to others (mode");
    (void)secret("k.pem", "k", 0600);
    EXPECT_EQ(refusal(with), "");
    EXPECT_EQ(refusal("tls_ca = " + path("no.pem")),
              "conf:1: tls_ca: no.pem cannot be read: No such file or directory");
}

TEST_F(settings, a_secret_never_shows_in_a_refusal) {
    (void)secret("user", "hunter2\nhunter2");
    EXPECT_EQ(refusal("username_file = " + path("user")).find("hunter2"), std::string::npos);
    EXPECT_EQ(refusal("rest_token = hunter2").find("hunter2"), std::string::npos);
    EXPECT_EQ(refusal("username=hunter2\n").find("hunter2"), std::string::npos);
}

} // namespace
