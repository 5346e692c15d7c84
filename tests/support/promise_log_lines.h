// Lines of a promise log, for the tests of those who read it.
#ifndef TESTS_SUPPORT_PROMISE_LOG_LINES_H
#define TESTS_SUPPORT_PROMISE_LOG_LINES_H

#include <string>

struct PromiseLogLine {
    long timestamp;
    std::string handle = "motd";
    std::string outcome = "REPAIRED";
    std::string type = "files";
    std::string messages = "[\"Created '/etc/motd'\"]";
};

// As the agent writes it, with its line end.
inline std::string PromiseLogText(const PromiseLogLine &line)
{
    return "{\"timestamp\":" + std::to_string(line.timestamp) +
           ",\"execution\":{\"promise_hash\":\"9f86d081\",\"policy_filename\":\"promises.vt\",\"release_id\":\"rel-1\","
           "\"promise_outcome\":\"" +
           line.outcome + "\",\"namespace\":\"default\",\"bundle\":\"main\",\"promise_type\":\"" + line.type +
           "\",\"promiser\":\"/etc/motd\",\"stack_path\":\"/default/main\",\"handle\":\"" + line.handle +
           "\",\"line_number\":42,\"policy_file_hash\":\"abcdef\",\"promisees\":[],\"log_messages\":" + line.messages +
           ",\"meta_tags\":[\"inventory\"]}}\r\n";
}

// The row that the entry of such a line travels as, when its outcome is a repair and its messages hold no comma.
inline std::string PromiseLogRow(long timestamp, const std::string &handle = "motd")
{
    return std::to_string(timestamp) + ",9f86d081,promises.vt,rel-1,114,default,main,files,/etc/motd,/default/main," +
           handle + ",[],\"[\"\"Created '/etc/motd'\"\"]\",42,abcdef,\"[\"\"inventory\"\"]\"";
}

#endif
