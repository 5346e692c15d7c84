// The policy that the daemon serves by: who may ask for what, and the settings of its control body.
//
// Everything of one policy (its promises, its context, its rules, the report filters in the plug-in) changes at one
// moment, under the write lock; whoever decides by it holds the read lock until the decision has taken effect. Loading
// itself, which may run functions of the policy, holds no lock. A policy that cannot be loaded changes nothing.
#ifndef HOST_VT_SERVERD_SERVED_POLICY_H
#define HOST_VT_SERVERD_SERVED_POLICY_H

#include <mutex>
#include <shared_mutex>
#include <string>

#include <veltrane/owned.h>

#include "libveltrane/access_rules.h"

namespace vtserverd {

struct ServerSettings {
    bool listen = true;
    bool dump_reports = false;
    size_t max_connections = 200;
    int call_collect_interval = 0;     // seconds; 0 = no collect calls
    std::string service_announcement;  // path of the file in which a hub announces itself; "" = none
};

class ServedPolicy {
  public:
    using ReadLock = std::shared_lock<std::shared_mutex>;

    // Read and evaluate the policy of a file and put it in force. false, after one error line, when it cannot be read,
    // is malformed, or could have been written by somebody else; the one before stays in force. Main thread only.
    [[nodiscard]] bool Load(const std::string &path);

    // The read lock. It is never held across network I/O.
    ReadLock Lock() const;

    // All only while the caller holds the read lock, or in the main thread, which alone writes. Under the read lock the
    // context is read and nothing else.
    const veltrane::AccessRules &Rules() const { return rules_; }
    const ServerSettings &Settings() const { return settings_; }
    EvalContext *Context() const { return context_.get(); }

  private:
    // A waiting writer holds the turnstile, so that readers who keep coming cannot keep it out.
    mutable std::mutex turnstile_;
    mutable std::shared_mutex mutex_;  // guards all below
    veltrane::PolicyPtr policy_;
    veltrane::EvalContextPtr context_;
    veltrane::AccessRules rules_;  // after the policy that its promises point into
    ServerSettings settings_;
};

}  // namespace vtserverd

#endif
