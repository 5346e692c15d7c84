// Any bytes as a policy file: refused with a place and a reason, or parsed into promises that can be asked and hashed.
#include <cstring>
#include <string>

#include <veltrane/owned.h>
#include <veltrane/policy.h>

#include "fuzz/fuzz_support.h"

namespace {

void AskPromise(const Promise *pp)
{
    Require(PromiseGetBundle(pp) != nullptr && PromiseID(pp) != nullptr);
    PromiseGetHandle(pp);
    unsigned char digest[EVP_MAX_MD_SIZE];
    PromiseRuntimeHash(pp, "", digest, HASH_METHOD_SHA256);
}

void AskPolicy(const Policy *policy)
{
    for (size_t b = 0; b < SeqLength(policy->bundles); ++b) {
        const auto *bundle = static_cast<const Bundle *>(SeqAt(policy->bundles, b));
        for (size_t s = 0; s < SeqLength(bundle->sections); ++s) {
            const auto *section = static_cast<const BundleSection *>(SeqAt(bundle->sections, s));
            for (size_t p = 0; p < SeqLength(section->promises); ++p) {
                AskPromise(static_cast<const Promise *>(SeqAt(section->promises, p)));
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string &path = InputAsFile(data, size);
    char *error = nullptr;
    const veltrane::PolicyPtr policy(PolicyParseFile(path.c_str(), &error));
    const veltrane::TextPtr reason(error);
    Require((policy == nullptr) == (reason != nullptr));
    if (policy != nullptr) {
        AskPolicy(policy.get());
    } else {
        Require(std::strncmp(reason.get(), FuzzWorkDirectory().c_str(), FuzzWorkDirectory().size()) == 0);
    }
    return 0;
}
