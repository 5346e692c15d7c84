// Regular expressions of string_lib.h: PCRE2 on bytes, compiled once a thread.
//
// Each thread keeps the expressions it used last, at most kMostPatterns of them, so no lock is needed and nothing grows
// for ever. Anchoring is part of the compiled form: the fast matcher does not know it as an option of a single match.
#define PCRE2_CODE_UNIT_WIDTH 8
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <pcre2.h>

#include <veltrane/alloc.h>
#include <veltrane/logging.h>
#include <veltrane/string_lib.h>

#include "libveltrane/regex_check.h"

namespace {

constexpr size_t kMostPatterns = 256;
constexpr unsigned kUsesBeforeJit = 3;  // machine code costs as much as a dozen plain matches
constexpr uint32_t kMatchLimit = 100000;

// Memory that never runs out (alloc.h), so results of creating are not looked at for that.
pcre2_general_context *Memory()
{
    static pcre2_general_context *const memory = pcre2_general_context_create(
        [](PCRE2_SIZE size, void *) { return xmalloc(size); }, [](void *old, void *) { free(old); }, nullptr);
    return memory;
}

struct FreeCode {
    void operator()(pcre2_code *code) const { pcre2_code_free(code); }
};
struct FreeMatchData {
    void operator()(pcre2_match_data *data) const { pcre2_match_data_free(data); }
};
struct FreeCompileContext {
    void operator()(pcre2_compile_context *context) const { pcre2_compile_context_free(context); }
};
struct FreeMatchContext {
    void operator()(pcre2_match_context *context) const { pcre2_match_context_free(context); }
};

struct Pattern {
    std::unique_ptr<pcre2_code, FreeCode> code;
    unsigned uses = 0;
    uint64_t last_use = 0;
};

std::string ErrorText(int error)
{
    PCRE2_UCHAR text[256] = "";
    pcre2_get_error_message(error, text, sizeof(text));
    return reinterpret_cast<const char *>(text);
}

// The expressions of one thread, and what matching them needs.
class PatternCache {
  public:
    PatternCache()
        : data_(pcre2_match_data_create(1, Memory())),  // the whole match is all that anybody asks for
          compile_context_(pcre2_compile_context_create(Memory())),
          context_(pcre2_match_context_create(Memory()))
    {
        pcre2_set_match_limit(context_.get(), kMatchLimit);
    }

    bool Match(const char *regex, bool full, const char *text, size_t *ret_start, size_t *ret_end)
    {
        Pattern *pattern = Find(regex, full);
        if (pattern == nullptr) {
            return false;
        }
        const PCRE2_SPTR subject = reinterpret_cast<PCRE2_SPTR>(text);
        const size_t length = strlen(text);
        pcre2_code *code = pattern->code.get();
        int result = pcre2_match(code, subject, length, 0, 0, data_.get(), context_.get());
        if (result == PCRE2_ERROR_JIT_STACKLIMIT) {  // the plain matcher keeps its stack on the heap
            result = pcre2_match(code, subject, length, 0, PCRE2_NO_JIT, data_.get(), context_.get());
        }
        if (result == PCRE2_ERROR_NOMATCH) {
            return false;
        }
        if (result < 0) {
            Log(LOG_LEVEL_ERR, "Regular expression '%s' was given up on a text: %s", regex, ErrorText(result).c_str());
            return false;
        }
        const PCRE2_SIZE *positions = pcre2_get_ovector_pointer(data_.get());
        if (ret_start != nullptr) {
            *ret_start = positions[0];
        }
        if (ret_end != nullptr) {
            *ret_end = positions[1];
        }
        return true;
    }

  private:
    using Key = std::pair<std::string, bool>;

    // So that a text can be looked up without being copied.
    struct Order {
        using is_transparent = void;
        using View = std::pair<std::string_view, bool>;
        bool operator()(const View &a, const View &b) const { return a < b; }
    };

    Pattern *Find(const char *regex, bool full)
    {
        const auto found = patterns_.find(Order::View(regex, full));
        Pattern *pattern = found != patterns_.end() ? &found->second : Compile(regex, full);
        if (pattern != nullptr) {
            pattern->last_use = ++clock_;
            if (++pattern->uses == kUsesBeforeJit) {
                (void)pcre2_jit_compile(pattern->code.get(), PCRE2_JIT_COMPLETE);  // without it matching is slower only
            }
        }
        return pattern;
    }

    Pattern *Compile(const char *regex, bool full)
    {
        int error = 0;
        PCRE2_SIZE offset = 0;
        const uint32_t options = PCRE2_DOTALL | (full ? PCRE2_ANCHORED | PCRE2_ENDANCHORED : 0);
        std::unique_ptr<pcre2_code, FreeCode> code(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(regex),
                                                                 PCRE2_ZERO_TERMINATED, options, &error, &offset,
                                                                 compile_context_.get()));
        if (code == nullptr) {
            Log(LOG_LEVEL_ERR, "Regular expression '%s' does not compile: %s (at byte %zu)", regex,
                ErrorText(error).c_str(), offset);
            return nullptr;
        }
        if (patterns_.size() >= kMostPatterns) {
            ForgetOldest();
        }
        Pattern &pattern = patterns_[Key(regex, full)];
        pattern.code = std::move(code);
        return &pattern;
    }

    void ForgetOldest()
    {
        auto oldest = patterns_.begin();
        for (auto i = patterns_.begin(); i != patterns_.end(); ++i) {
            if (i->second.last_use < oldest->second.last_use) {
                oldest = i;
            }
        }
        patterns_.erase(oldest);
    }

    std::map<Key, Pattern, Order> patterns_;
    uint64_t clock_ = 0;  // counts uses
    std::unique_ptr<pcre2_match_data, FreeMatchData> data_;
    std::unique_ptr<pcre2_compile_context, FreeCompileContext> compile_context_;
    std::unique_ptr<pcre2_match_context, FreeMatchContext> context_;
};

PatternCache &CacheOfThisThread()
{
    static thread_local PatternCache cache;
    return cache;
}

}  // namespace

bool HasRegexMetaChars(const char *text) { return strpbrk(text, "\\^$.|?*+()[]{}") != nullptr; }

bool StringMatch(const char *regex, const char *text, size_t *ret_start, size_t *ret_end)
{
    return CacheOfThisThread().Match(regex, false, text, ret_start, ret_end);
}

bool StringMatchFull(const char *regex, const char *text)
{
    return CacheOfThisThread().Match(regex, true, text, nullptr, nullptr);
}

std::string veltrane::WhyNoRegex(const char *regex)
{
    int error = 0;
    PCRE2_SIZE offset = 0;
    const std::unique_ptr<pcre2_code, FreeCode> code(pcre2_compile(
        reinterpret_cast<PCRE2_SPTR>(regex), PCRE2_ZERO_TERMINATED, PCRE2_DOTALL, &error, &offset, nullptr));
    return code != nullptr ? "" : ErrorText(error) + " (at byte " + std::to_string(offset) + ")";
}
