// Finding the logs in the folders given on the command line.
//
// A folder stands for every log inside it, at any depth, that this system
// writes: the plug-in's "QXAttentionPlugin.log.logdat" and "QXAttentionPlugin.log",
// the log of a host that wrote before it set the log up ("<program>.log.logdat",
// or "<program>.exe.log" when the configuration turns obfuscation off), and
// the sensor library's "SensorLibLog.log"; each also compressed (".gz").
//
// A folder collected from a fleet holds one folder per machine. The logs are
// grouped by the folder of their machine: the folder that holds them, less
// the folders the logger puts them in ("ProgramData\Vantoq\Quillomatic\logs",
// "ProgramData\Vantoq\SensorFusion\Logs", or the tail of either), so that one
// machine's plug-in log and sensor library log form one group.
//
// A subfolder that cannot be read is noted and skipped: the rest is read.
#pragma once

#include <string>
#include <vector>

namespace logread {

// The logs of one machine: `folder` is its folder ("" for the files given
// by name on the command line), `files` its logs as paths, the plug-in's
// first, then the sensor library's, each in path order.
struct MachineLogs {
  std::string folder;
  std::vector<std::string> files;
};

struct FoundLogs {
  std::vector<MachineLogs> machines;
  // "FOLDER: cannot read the folder: REASON" for each folder skipped.
  std::vector<std::string> unreadable;
  // Every file of every group, in the order of the groups.
  std::vector<std::string> Files() const;
};

// Whether a file's name is that of a log this system writes (any case).
bool IsLogName(std::string name);

// Finds the logs of `given` (files, folders, "-"); an empty string, or why a
// folder given cannot be used (it cannot be read at all, or holds no log).
std::string FindLogs(const std::vector<std::string>& given, FoundLogs& found);

}  // namespace logread
