// A promise under evaluation: a policy in memory, and a context whose stack stands at one iteration of one promise.
#ifndef TESTS_SUPPORT_PROMISE_SITE_H
#define TESTS_SUPPORT_PROMISE_SITE_H

#include <string>

#include <veltrane/alloc.h>
#include <veltrane/eval_context.h>
#include <veltrane/owned.h>
#include <veltrane/policy.h>
#include <veltrane/ring_buffer.h>
#include <veltrane/string_lib.h>

#include "support/texts.h"

// What a test says of its promise; NULL where the policy says nothing.
struct PromiseSettings {
    const char *release_id = "r1";
    const char *ns = "default";
    std::string bundle = "main";
    const char *source_path = "/inputs/promises.vt";
    const char *source_hash = "00ff";
    const char *type = "files";
    std::string promiser = "/etc/motd";
    Texts promisees = {};
    size_t line = 7;
};

class PromiseSite {
  public:
    explicit PromiseSite(const PromiseSettings &settings = {})
        : policy_(PolicyNew()),
          ctx_(EvalContextNew()),
          bundle_(
              PolicyAppendBundle(policy_.get(), settings.ns, settings.bundle.c_str(), "agent", settings.source_path)),
          section_(BundleAppendSection(bundle_, settings.type)),
          promise_(BundleSectionAppendPromise(
              section_, settings.promiser.c_str(),
              settings.promisees.empty() ? Rval{nullptr, RVAL_TYPE_NONE} : ListRval(settings.promisees),
              {settings.line, 1}))
    {
        policy_->release_id = SafeStringDuplicate(settings.release_id);
        if (settings.source_path != nullptr && settings.source_hash != nullptr) {
            PolicySetFileHash(policy_.get(), settings.source_path, settings.source_hash);
        }
        EvalContextStackPushBundle(ctx_.get(), bundle_);
        EvalContextStackPushSection(ctx_.get(), section_);
        EvalContextStackPushPromise(ctx_.get(), promise_);
        EvalContextStackPushIteration(ctx_.get(), promise_, 0);
    }

    // Give the promise an attribute.
    void Scalar(const char *name, const std::string &value)
    {
        PromiseAppendConstraint(promise_, name, RvalNew(value.c_str(), RVAL_TYPE_SCALAR));
    }
    void List(const char *name, const Texts &values) { PromiseAppendConstraint(promise_, name, ListRval(values)); }

    // What was logged while the promise was evaluated.
    void Message(const std::string &text)
    {
        RingBufferAppend(EvalContextStackCurrentMessages(ctx_.get()), xstrdup(text.c_str()));
    }

    EvalContext *ctx() const { return ctx_.get(); }
    const Promise *promise() const { return promise_; }

  private:
    veltrane::PolicyPtr policy_;
    veltrane::EvalContextPtr ctx_;
    Bundle *bundle_;
    BundleSection *section_;
    Promise *promise_;
};

#endif
