// The daemon's log lines as field tools and people read them: every line
// names the source file and the function that writes it, and each function
// writes only its own messages. The table lists them by source and function,
// and the check reads a log file against it.
#pragma once

#include <string>
#include <vector>

namespace wifim_test {

// One message of the daemon: who writes it, at which level (the five
// characters of the line's level field), and its text as a printf format
// (%s, %d, %u, %lu and %lld).
struct log_message {
    const char* source;
    const char* function;
    const char* level;
    const char* format;
};

const std::vector<log_message>& known_log_messages();

// Whether text is what format prints for some values. A %s takes any text,
// line ends included (requests, answers and replies are logged whole). With
// cut set, text may stop anywhere: the log cuts a line at 1022 characters.
bool log_format_matches(const char* format, const std::string& text, bool cut);

// The entries of a log file's text that the table does not know: a
// (source, function) that writes no message, a message that function does not
// write, or a level it does not write it at. Each is returned with the reason.
// An entry is a line that starts with the date, the time and the level, plus
// the lines up to the next such line (a logged text can span lines); lines
// before the first entry are what was left of a full log cut down to its tail.
std::vector<std::string> unknown_log_entries(const std::string& log_text);

}  // namespace wifim_test
