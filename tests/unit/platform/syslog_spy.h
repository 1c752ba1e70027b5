// Takes the place of syslog(3) in this test program and keeps what was sent there.
#ifndef TESTS_SYSLOG_SPY_H
#define TESTS_SYSLOG_SPY_H

#include <string>
#include <vector>

struct SyslogLine {
    int priority;
    std::string text;
};

// The lines since the last call.
std::vector<SyslogLine> take_syslog();

#endif
