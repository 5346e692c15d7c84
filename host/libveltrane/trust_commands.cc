#include "libveltrane/trust_commands.h"

#include <cstdio>

#include <veltrane/logging.h>

#include "libveltrane/keys.h"

namespace veltrane {

int KeyCommand()
{
    std::string error;
    const KeyPtr key = OwnKey(&error);
    if (key == nullptr) {
        Log(LOG_LEVEL_ERR, "%s", error.c_str());
        return 1;
    }
    std::printf("%s\n%s\n", KeyIdentity(key.get()).c_str(), OwnPublicKeyPath().c_str());
    return 0;
}

int TrustAddCommand(const std::string &source, const std::string &expected)
{
    std::string identity;
    const std::string error = TrustAdd(source, expected, &identity);
    if (!error.empty()) {
        Log(LOG_LEVEL_ERR, "%s", error.c_str());
        return 1;
    }
    std::printf("%s\n", identity.c_str());
    return 0;
}

int TrustRemoveCommand(const std::string &identity)
{
    const std::string error = TrustRemove(identity);
    if (!error.empty()) {
        Log(LOG_LEVEL_ERR, "%s", error.c_str());
        return 1;
    }
    return 0;
}

int TrustListCommand()
{
    for (const std::string &identity : TrustedIdentities()) { std::printf("%s\n", identity.c_str()); }
    return 0;
}

}  // namespace veltrane
