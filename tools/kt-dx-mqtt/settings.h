#ifndef KT_DX_MQTT_SETTINGS_H
#define KT_DX_MQTT_SETTINGS_H

#include <string>

/** Where the settings are read from when the command line names no file; below KT_ROOT. */
constexpr char settings_file[] = "/etc/kt-dx-mqtt.conf";

enum class mqtt_protocol { v3_1_1, v5 };

/**
 * What the bridge was told. Texts are empty where a key was left out and has no default.
 *
 * username, password and rest_token are secrets: they are printed nowhere.
 */
struct bridge_settings {
    std::string broker_host = "127.0.0.1";
    int broker_port = 0; // read_settings() puts 1883, or 8883 with TLS
    std::string client_id;
    std::string prefix; // of every topic, without a "/" at its end
    int keepalive_s = 30;
    mqtt_protocol protocol = mqtt_protocol::v5;
    int qos = 1; // of everything that is published and subscribed to outside Sparkplug B

    std::string username; // empty: none is sent
    std::string password;

    std::string tls_ca; // a file; empty: no TLS
    std::string tls_cert;
    std::string tls_key;
    bool tls_insecure = false; // the name in the broker's certificate is not compared

    std::string rest_url; // with the base path; empty: the service is not asked
    std::string rest_token;
    int diagnostics_period_s = 10; // 0: no diagnostics

    bool discovery = false;
    std::string discovery_prefix = "homeassistant";

    bool sparkplug = false;
    std::string sparkplug_group;
    std::string sparkplug_node;

    int write_queue_length = 256;
    int event_queue_length = 256;
    int reconnect_min_ms = 1000;
    int reconnect_max_ms = 60000;
};

/**
 * Read a settings file and the files with secrets that it names.
 *
 * @param[out] settings  untouched on failure
 * @param[out] error     one line, set on failure only: file, line, key, what is wrong and the way
 *                       out
 * @retval  0  read
 * @retval -1  refused
 */
int read_settings(const char *file, bridge_settings &settings, std::string &error);

#endif
