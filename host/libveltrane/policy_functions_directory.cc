// The policy functions that ask a directory.
#include "libveltrane/policy_functions_directory.h"

#include <cstring>

#include <veltrane/entry_points.h>
#include <veltrane/owned.h>
#include <veltrane/string_lib.h>

#include "libveltrane/regex_check.h"

namespace veltrane {

namespace {

// The arguments of a call as the entry points take them: texts of their own.
class Arguments {
  public:
    explicit Arguments(const FunctionCall &call) : texts_(call.arguments) {}
    char *operator[](size_t i) { return texts_[i].data(); }

  private:
    std::vector<std::string> texts_;
};

// What was asked of whom, for a message; bind errors are told by nobody else.
std::string Asked(const std::string &uri, const std::string &base, const std::string &filter)
{
    return "'" + uri + "' for '" + filter + "' below '" + base + "'";
}

Answer NoAnswer(const std::string &uri, const std::string &base, const std::string &filter)
{
    return Failed("no answer from " + Asked(uri, base, filter));
}

Answer NoValue(const FunctionCall &call)
{
    return Failed("no answer from " + Asked(call.arguments[0], call.arguments[1], call.arguments[2]) +
                  ", or no value of '" + call.arguments[3] + "' in it");
}

Answer TooLong(const std::string &attribute)
{
    return Failed("a value of '" + attribute + "' is longer than " + std::to_string(kLargestText) + " bytes");
}

// A class expression that an entry point made.
Answer Expression(void *expression) { return Value(Rval{expression, RVAL_TYPE_SCALAR}); }

// A variable's name, perhaps of another bundle.
bool IsArrayName(const std::string &name)
{
    return !name.empty() && name.find_first_not_of(
                                "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                "0123456789_.:") == std::string::npos;
}

}  // namespace

Answer LdapValue(const FunctionCall &call)
{
    Arguments a(call);
    const TextPtr value(static_cast<char *>(VtLDAPValue(a[0], a[1], a[2], a[3], a[4], a[5])));
    if (value == nullptr) {
        return NoValue(call);
    }
    return strlen(value.get()) <= kLargestText ? Text(value.get()) : TooLong(call.arguments[3]);
}

Answer LdapList(const FunctionCall &call)
{
    Arguments a(call);
    RlistPtr values(static_cast<Rlist *>(VtLDAPList(a[0], a[1], a[2], a[3], a[4], a[5])));
    if (values == nullptr) {
        return NoValue(call);
    }
    for (const Rlist *node = values.get(); node != nullptr; node = node->next) {
        if (strlen(RlistScalarValue(node)) > kLargestText) {
            return TooLong(call.arguments[3]);
        }
    }
    return Value(Rval{values.release(), RVAL_TYPE_LIST});
}

Answer LdapArray(const FunctionCall &call)
{
    if (!IsArrayName(call.arguments[0])) {
        return Failed("'" + call.arguments[0] + "' is no name of an array");
    }
    Arguments a(call);
    void *const expression = VtLDAPArray(call.ctx, PromiseGetBundle(call.promise), a[0], a[1], a[2], a[3], a[4], a[5]);
    return expression != nullptr ? Expression(expression)
                                 : NoAnswer(call.arguments[1], call.arguments[2], call.arguments[3]);
}

Answer RegLdap(const FunctionCall &call)
{
    const std::string mistake = WhyNoRegex(call.arguments[5].c_str());
    if (!mistake.empty()) {
        return Failed("'" + call.arguments[5] + "' is no regular expression: " + mistake);
    }
    Arguments a(call);
    void *const expression = VtRegLDAP(call.ctx, a[0], a[1], a[2], a[3], a[4], a[5], a[6]);
    return expression != nullptr ? Expression(expression)
                                 : NoAnswer(call.arguments[0], call.arguments[1], call.arguments[2]);
}

}  // namespace veltrane
