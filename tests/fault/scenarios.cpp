#include "scenario.h"

#include <array>
#include <cstdio>

namespace {

constexpr const char *frames =
    R"("frameList":[{"canId":513,"dataLength":8,"blockList":[)"
    R"({"blockType":0,"tagName":"speed","tagType":6,"tagSize":2,"access":"wo","startOffset":0,)"
    R"("swap":0,"fpData":"00FF","scalingFunc":1,"interceptSlope":2,"interceptOffset":-1},)"
    R"({"blockType":0,"tagName":"load","tagType":9,"tagSize":4,"access":"ro","startOffset":2,)"
    R"("swap":1,"scalingFunc":2,"pointSourceMin":0,"pointSourceMax":100,"pointTargetMin":0,)"
    R"("pointTargetMax":1},{"blockType":1,"constantName":"code","constantSize":2,)"
    R"("startOffset":6,"constantValue":"40A0"}]}])";

constexpr const char *transaction =
    R"("transactionEnable":true,"transactionName":"cyclic","transactionType":0,"trigger":0,)"
    R"("cyclicInterval":100,"fpFunc":2,"fpTimeout":500,"triggerByRTR":false)";

constexpr const char *file =
    "[interface-setting]\n"
    "portId,frameFormat,baudrate,initialDelay,busOffReset,resistor\n1,0,5,0,0,1\n\n"
    "[device]\ndeviceId,portId,deviceName\n7,1,robot\n\n"
    "[transactions]\n"
    "transactionId,deviceId,transactionEnable,transactionName,transactionType,triggerMode,"
    "cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,consumeTimeout,timeoutRetry,"
    "responseTimeout\n2,7,1,state,1,,,,,,1,300,,\n\n"
    "[frame]\nframeId,transactionId,canId,dataLength,frameType\n2,2,181,8,1\n\n"
    "[block]\n"
    "blockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,"
    "scalingFunc,interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,pointTargetMin,"
    "pointTargetMax,constantName,constantSize,constantValue\n"
    "2,2,0,0,load,6,2,ro,0,,2,,,0,100,0,1,,,\n";

http_request upload(const std::string &text) {
    return {"POST",
            "/config-file",
            "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"c.csv\"\r\n\r\n" +
                text + "\r\n--b--\r\n",
            "multipart/form-data; boundary=b"};
}

std::string object(std::initializer_list<std::string> members) {
    std::string text = "{";
    for (const std::string &member : members) {
        text += (text.size() > 1 ? "," : "") + member;
    }
    return text + "}";
}

scenario change(const char *name,
                const char *method,
                const char *path,
                std::string body,
                int status,
                const char *prelude = nullptr) {
    return {name,
            scene::kind::EDITED,
            true,
            run_request,
            {method, path, std::move(body), "application/json"},
            status,
            prelude};
}

scenario
large_change(const char *name, const char *method, const char *path, std::string body, int status) {
    scenario made = change(name, method, path, std::move(body), status);
    made.gateway = scene::kind::LARGE;
    return made;
}

scenario read(const char *name,
              const char *path,
              scene::kind gateway = scene::kind::EDITED,
              const char *prelude = nullptr) {
    return {name, gateway, true, run_request, {"GET", path}, 200, prelude};
}

const std::string tree = object({transaction, frames});

const std::array scenarios = {
    scenario{"start_first", scene::kind::EMPTY, false, run_start},
    scenario{"start_booted", scene::kind::BOOTED, false, run_start},
    scenario{"start_again", scene::kind::EDITED, false, run_start},
    scenario{"start_migrating", scene::kind::OUTDATED, false, run_start},
    scenario{"start_large", scene::kind::LARGE, false, run_start},
    scenario{.name = "start_two_ports",
             .gateway = scene::kind::EDITED,
             .is_warm = false,
             .run = run_start,
             .has_absent_port = true},
    scenario{"stop", scene::kind::EDITED, false, run_stop},
    scenario{"load_port", scene::kind::EDITED, true, run_load},
    scenario{"load_large", scene::kind::LARGE, true, run_load},
    change("post_device",
           "POST",
           "/device",
           object({R"("portId":1,"deviceName":"robot")", "\"transactionList\":[" + tree + "]"}),
           201),
    change("patch_device", "PATCH", "/device/1", R"({"deviceName":"motor"})", 200),
    change("delete_device", "DELETE", "/device/1", "", 204),
    change("post_transaction",
           "POST",
           "/transaction",
           object({R"("deviceId":1)", transaction, frames}),
           201),
    change("patch_transaction", "PATCH", "/transaction/1", object({transaction}), 200),
    change("delete_transaction", "DELETE", "/transaction/1", "", 204),
    change("put_frame", "PUT", "/frame/1", object({frames}), 200),
    change("patch_interface",
           "PATCH",
           "/interface/1",
           R"({"frameFormat":0,"baudrate":5,"initialDelay":0,"busOffReset":true,"resistor":false})",
           200),
    change("apply", "POST", "/action", R"({"option":0})", 201),
    change("discard", "POST", "/action", R"({"option":1})", 201),
    change("record", "POST", "/traffic/1", R"({"option":1})", 201),
    change("record_again", "POST", "/traffic/1", R"({"option":1})", 201, R"({"option":1})"),
    change("record_stop", "POST", "/traffic/1", R"({"option":0})", 201, R"({"option":1})"),
    scenario{"import", scene::kind::EDITED, true, run_request, upload(file), 201},
    scenario{
        "import_large", scene::kind::EDITED, true, run_request, upload(scene::large_file()), 201},
    read("export", "/config-file"),
    read("export_large", "/config-file", scene::kind::LARGE),
    large_change("apply_large", "POST", "/action", R"({"option":0})", 201),
    large_change("discard_large", "POST", "/action", R"({"option":1})", 201),
    large_change("delete_large", "DELETE", "/device/1", "", 204),
    read("get_interface", "/interface?portId=1"),
    read("get_config_change", "/config-change"),
    read("get_used_ids", "/usedCANIds?portId=1"),
    read("get_traffic", "/traffic/1", scene::kind::EDITED, R"({"option":1})"),
    read("export_traffic", "/traffic-export/1", scene::kind::EDITED, R"({"option":1})"),
    read("get_device", "/device?deviceId=1"),
    read("get_overview", "/overview"),
    read("get_diagnose", "/diagnose?portId=1"),
    scenario{"frame", scene::kind::BOOTED, false, run_frame},
    scenario{"tag_write", scene::kind::BOOTED, false, run_tag_write},
    scenario{"service_apply",
             scene::kind::EDITED,
             false,
             run_service_request,
             {"POST", "/action", R"({"option":0})"},
             201},
    scenario{"service_import", scene::kind::EDITED, false, run_service_request, upload(file), 201},
};

} // namespace

std::span<const scenario> all_scenarios() {
    return scenarios;
}

void find(outcome &out, const std::string &text) {
    if (out.is != verdict::FINDING) {
        out.is = verdict::FINDING;
        (void)snprintf(out.text, sizeof out.text, "%s", text.c_str());
    }
}
