// Logging: one line a message on the output, and a hook a thread that sees the message before it.
//
// The output is for people at a terminal and for files: control bytes of foreign text are escaped there, so that no
// peer, file or directory can move a cursor or forge a line. The hook gets the bytes as they were formatted.
//
// A short message needs no memory from the heap: the report that memory ran out passes here as well.
#include <veltrane/logging.h>

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

constexpr size_t kShortMessage = 1024;
constexpr size_t kEscapedByte = 4;   // "\x1b"
constexpr size_t kPrefixWidth = 10;  // "critical: ", all levels padded to the longest

std::atomic<int> level_in_force{LOG_LEVEL_NOTICE};

// Guards the two below, and is held while a line is written: a stream that LogSetOutput has taken away is not used
// any more once it returns.
pthread_mutex_t output_mutex = PTHREAD_MUTEX_INITIALIZER;
FILE *output_stream = stderr;
bool output_system_log = false;

thread_local LoggingPrivContext *thread_context = nullptr;
thread_local bool inside_hook = false;

void LockOutput() { pthread_mutex_lock(&output_mutex); }
void UnlockOutput() { pthread_mutex_unlock(&output_mutex); }

// A child made while another thread writes a line must be able to log.
[[maybe_unused]] const int fork_handlers = pthread_atfork(LockOutput, UnlockOutput, UnlockOutput);

struct Free {
    void operator()(char *text) const { free(text); }
};
using HeapText = std::unique_ptr<char, Free>;

// The formatted message: in the given room when it fits there, else on the heap. Without memory it is cut.
std::string_view Format(char (&room)[kShortMessage], HeapText *ret_heap, const char *format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(room, sizeof(room), format, arguments);
    std::string_view message;
    if (length < 0) {  // a wide character that cannot be converted: what the format says is better than nothing
        const size_t kept = std::min(strlen(format), sizeof(room) - 1);
        memcpy(room, format, kept);
        room[kept] = '\0';
        message = {room, kept};
    } else if (static_cast<size_t>(length) < sizeof(room)) {
        message = {room, static_cast<size_t>(length)};
    } else {
        const size_t size = static_cast<size_t>(length) + 1;
        ret_heap->reset(static_cast<char *>(malloc(size)));
        if (*ret_heap == nullptr) {
            message = {room, sizeof(room) - 1};
        } else {
            vsnprintf(ret_heap->get(), size, format, again);
            message = {ret_heap->get(), static_cast<size_t>(length)};
        }
    }
    va_end(again);
    return message;
}

// The length of the printable UTF-8 character at the start of text; 0 for a control character or a stray byte.
size_t PrintableLength(std::string_view text)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0x80) {
        return byte(0) >= 0x20 && byte(0) != 0x7F ? 1 : 0;
    }
    const size_t length = byte(0) >= 0xF0 && byte(0) <= 0xF4   ? 4
                          : byte(0) >= 0xE0 && byte(0) <= 0xEF ? 3
                          : byte(0) >= 0xC2 && byte(0) <= 0xDF ? 2
                                                               : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const bool second_control_set = byte(0) == 0xC2 && byte(1) < 0xA0;
    return second_control_set ? 0 : length;
}

// Write what stands for one byte that is not printed raw; the number of bytes written, at most kEscapedByte.
size_t Escape(char *to, char c)
{
    const char *const named = c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\t' ? "\\t" : nullptr;
    if (named != nullptr) {
        memcpy(to, named, 2);
        return 2;
    }
    static const char digits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    to[0] = '\\';
    to[1] = 'x';
    to[2] = digits[byte >> 4];
    to[3] = digits[byte & 0xF];
    return kEscapedByte;
}

// Make the output's line of a message in room, which holds size bytes: level, message, line feed. A message that may
// not fit is cut. The line's length.
size_t MakeLine(char *room, size_t size, LogLevel level, std::string_view message)
{
    size_t length = static_cast<size_t>(snprintf(room, size, "%8s: ", LogLevelToString(level)));
    while (!message.empty() && length + kEscapedByte + 1 <= size) {
        const size_t printable = PrintableLength(message);
        if (printable > 0) {
            memcpy(room + length, message.data(), printable);
            length += printable;
            message.remove_prefix(printable);
        } else {
            length += Escape(room + length, message.front());
            message.remove_prefix(1);
        }
    }
    room[length] = '\n';
    return length + 1;
}

int SystemLogPriority(LogLevel level)
{
    switch (level) {
        case LOG_LEVEL_CRIT:
            return LOG_CRIT;
        case LOG_LEVEL_ERR:
            return LOG_ERR;
        case LOG_LEVEL_WARNING:
            return LOG_WARNING;
        case LOG_LEVEL_NOTICE:
            return LOG_NOTICE;
        case LOG_LEVEL_INFO:
            return LOG_INFO;
        default:
            return LOG_DEBUG;
    }
}

// One write(2) a line, so that lines of several processes on one terminal or file do not mix. Whether it succeeded
// cannot be told to anybody.
void WriteToStream(FILE *stream, std::string_view line)
{
    flockfile(stream);
    fflush(stream);
    const int fd = fileno(stream);
    if (fd < 0) {  // a stream in memory
        (void)fwrite(line.data(), 1, line.size(), stream);
        fflush(stream);
    }
    while (fd >= 0 && !line.empty()) {
        const ssize_t written = write(fd, line.data(), line.size());
        if (written < 0 && errno != EINTR) {
            break;
        }
        line.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    funlockfile(stream);
}

void WriteLine(LogLevel level, std::string_view message)
{
    if (!message.empty() && message.back() == '\n') {
        message.remove_suffix(1);  // the message's own line end is the line's
    }
    char short_line[kPrefixWidth + kShortMessage + kEscapedByte + 1];
    char *line = short_line;
    size_t size = sizeof(short_line);
    HeapText long_line;
    const size_t most = kPrefixWidth + kEscapedByte * (message.size() + 1) + 1;
    if (most > size) {
        long_line.reset(static_cast<char *>(malloc(most)));
        if (long_line != nullptr) {
            line = long_line.get();
            size = most;
        }
    }
    const size_t length = MakeLine(line, size, level, message);

    LockOutput();
    if (output_stream != nullptr) {
        WriteToStream(output_stream, {line, length});
    }
    if (output_system_log) {
        syslog(SystemLogPriority(level), "%.*s", static_cast<int>(length - kPrefixWidth - 1), line + kPrefixWidth);
    }
    UnlockOutput();
}

void CallHook(LogLevel level, const char *message)
{
    inside_hook = true;
    thread_context->log_hook(thread_context, level, message);
    inside_hook = false;
}

}  // namespace

void VLog(LogLevel level, const char *format, va_list arguments)
{
    const int in_force = level_in_force.load(std::memory_order_relaxed);
    const LoggingPrivContext *const context = inside_hook ? nullptr : thread_context;
    const bool hooked = context != nullptr && context->log_hook != nullptr &&
                        level <= std::max(in_force, static_cast<int>(context->force_hook_level));
    if (level <= LOG_LEVEL_NOTHING || (level > in_force && !hooked)) {
        return;
    }
    const int saved_errno = errno;
    char room[kShortMessage];
    HeapText heap;
    const std::string_view message = Format(room, &heap, format, arguments);
    if (hooked) {
        CallHook(level, message.data());
    }
    if (level <= in_force) {
        WriteLine(level, message);
    }
    errno = saved_errno;
}

void Log(LogLevel level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    VLog(level, format, arguments);
    va_end(arguments);
}

void LogSetGlobalLevel(LogLevel level) { level_in_force = level; }
LogLevel LogGetGlobalLevel(void) { return static_cast<LogLevel>(level_in_force.load()); }

const char *LogLevelToString(LogLevel level)
{
    switch (level) {
        case LOG_LEVEL_CRIT:
            return "critical";
        case LOG_LEVEL_ERR:
            return "error";
        case LOG_LEVEL_WARNING:
            return "warning";
        case LOG_LEVEL_NOTICE:
            return "notice";
        case LOG_LEVEL_INFO:
            return "info";
        case LOG_LEVEL_VERBOSE:
            return "verbose";
        case LOG_LEVEL_DEBUG:
            return "debug";
        case LOG_LEVEL_NOTHING:
            return "";
    }
    return "";
}

void LogSetOutput(FILE *stream, bool system_log)
{
    LockOutput();
    output_stream = stream;
    output_system_log = system_log;
    UnlockOutput();
}

void LoggingPrivSetContext(LoggingPrivContext *log_ctx) { thread_context = log_ctx; }
LoggingPrivContext *LoggingPrivGetContext(void) { return thread_context; }
