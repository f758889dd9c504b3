// The plug-in's records that the summary recognises: source, line and text
// (the format, placeholders unfilled) exactly as the plug-in writes them and
// docs/log-records.md lists them. tests/native/summary-records.py fails when a
// row here is not a row of that catalogue, so that a record renumbered or
// reworded in the plug-in cannot leave the summary blind.
#pragma once

#include <string_view>

namespace logread::known {

struct Known {
  std::string_view source;
  int line;
  std::string_view text;
};

// AttentionPlugin.cpp
inline constexpr Known kPluginInit{"AttentionPlugin.cpp", 170, " attention plugin init... "};
inline constexpr Known kInitBegin{"AttentionPlugin.cpp", 188, " attention action: init "};
inline constexpr Known kInitEnd{"AttentionPlugin.cpp", 236,
                                " attention status: %d, attention delay:%d "};
inline constexpr Known kInitRegistry{"AttentionPlugin.cpp", 196,
                                     "register attention status: %d, register attention delay:%d "};
inline constexpr Known kEarlyRegistry{
    "AttentionPlugin.cpp", 75, "register attention status: %d, register attention delay:%d "};
inline constexpr Known kInitAbility{"AttentionPlugin.cpp", 193, "ability: %d"};
inline constexpr Known kEarlyAbility{"AttentionPlugin.cpp", 72, "ability: %d"};
inline constexpr Known kStatusValue{"AttentionPlugin.cpp", 281, "status value: %d"};
inline constexpr Known kDelayValue{"AttentionPlugin.cpp", 312, "delay value: %d"};
inline constexpr Known kDelaySet{"AttentionPlugin.cpp", 325, "set attention delay success!"};
inline constexpr Known kReport{"AttentionPlugin.cpp", 49, "activeBigDataReport  SA0004"};
inline constexpr Known kClose{"AttentionPlugin.cpp", 241, "close attention client."};
inline constexpr Known kResp{"AttentionPlugin.cpp", 341, "resp: %s"};
inline constexpr Known kParseStatus{"AttentionPlugin.cpp", 254, "reader.parse error"};
inline constexpr Known kParseStatusObject{"AttentionPlugin.cpp", 261, "reader.parse error"};
inline constexpr Known kParseDelay{"AttentionPlugin.cpp", 294, "reader.parse error"};
inline constexpr Known kParseDelayObject{"AttentionPlugin.cpp", 301, "reader.parse error"};
inline constexpr Known kBadStatus{"AttentionPlugin.cpp", 268, "invalid status value: %d"};
inline constexpr Known kBadDelay{"AttentionPlugin.cpp", 308, "invalid delay value: %d"};
inline constexpr Known kStoredDelayFail{"AttentionPlugin.cpp", 233,
                                        " set attention delay fail: %d,"};
inline constexpr Known kDelayFail{"AttentionPlugin.cpp", 329, "set attention delay fail,resp: %d"};
inline constexpr Known kStatusUnsupported{
    "AttentionPlugin.cpp", 275, "current device not support attention,set parameter_status fail."};
inline constexpr Known kDelayUnsupported{
    "AttentionPlugin.cpp", 316, "current device not support attention,set parameter_delay fail."};

// AttentionFuntion
inline constexpr Known kServiceCheck{"AttentionFuntion", 25, "ServiceInstall ret=%d s:%x"};
inline constexpr Known kCheckStop{"AttentionFuntion", 54,
                                  "Fusion_service_restart SensorFusionServ"};
inline constexpr Known kRestart{"AttentionFuntion", 81, "Fusion_service_restart SensorFusionServ"};
inline constexpr Known kCacheBegin{"AttentionFuntion", 93,
                                   "CheckAttentionAbility  begin reg=%d dw:%d"};
inline constexpr Known kCacheNot{"AttentionFuntion", 99, "Cache not .. support attention"};
inline constexpr Known kQuery{"AttentionFuntion", 105, "CheckAttentionAbility InitFusion %x"};
inline constexpr Known kAnswerStopped{"AttentionFuntion", 109, "Attention stop"};
inline constexpr Known kAnswerActive{"AttentionFuntion", 115, "Attention active"};
inline constexpr Known kAnswerOther{"AttentionFuntion", 124, "Attention active :%d"};
inline constexpr Known kInitFusion{"AttentionFuntion", 229, "attention_init initfusion %x"};
inline constexpr Known kInitFusion2{"AttentionFuntion", 234, "attention_init initfusion2 %x"};
inline constexpr Known kUnInit{"AttentionFuntion", 250, "attention_un_init %x"};
inline constexpr Known kStartBegin{"AttentionFuntion", 258, "attention_start begin w:%d e:%d"};
inline constexpr Known kStartRefused{"AttentionFuntion", 261,
                                     "attention_start st %d , for enable %d"};
inline constexpr Known kStartEnd{"AttentionFuntion", 267, "tof_start end%d"};
inline constexpr Known kStop{"AttentionFuntion", 276, "attention_stop =%d SetFusionActive %d"};
inline constexpr Known kEnable{"AttentionFuntion", 283, "attention_set_enable %d"};
inline constexpr Known kDriverFailed{"AttentionFuntion", 165,
                                     "Connect to Fusion driver failed! resp:%d"};
inline constexpr Known kDriverFailedAgain{"AttentionFuntion", 169,
                                          "Connect to Fusion driver failed! resp:%d"};
inline constexpr Known kSetFailed{"AttentionFuntion", 173, "Set failed! resp:%d"};
inline constexpr Known kSetDelay{"AttentionFuntion", 182, "Set delay: %d ，resp:%d"};

// CommonHelper
inline constexpr Known kRunProcess{"CommonHelper", 3188, "WaitFor RunProcess Signal On, dwCode %d"};

inline constexpr const Known* kAll[] = {
    &kPluginInit,
    &kInitBegin,
    &kInitEnd,
    &kInitRegistry,
    &kEarlyRegistry,
    &kInitAbility,
    &kEarlyAbility,
    &kStatusValue,
    &kDelayValue,
    &kDelaySet,
    &kReport,
    &kClose,
    &kResp,
    &kParseStatus,
    &kParseStatusObject,
    &kParseDelay,
    &kParseDelayObject,
    &kBadStatus,
    &kBadDelay,
    &kStoredDelayFail,
    &kDelayFail,
    &kStatusUnsupported,
    &kDelayUnsupported,
    &kServiceCheck,
    &kCheckStop,
    &kRestart,
    &kCacheBegin,
    &kCacheNot,
    &kQuery,
    &kAnswerStopped,
    &kAnswerActive,
    &kAnswerOther,
    &kInitFusion,
    &kInitFusion2,
    &kUnInit,
    &kStartBegin,
    &kStartRefused,
    &kStartEnd,
    &kStop,
    &kEnable,
    &kDriverFailed,
    &kDriverFailedAgain,
    &kSetFailed,
    &kSetDelay,
    &kRunProcess,
};

}  // namespace logread::known
