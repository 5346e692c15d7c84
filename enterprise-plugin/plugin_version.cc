// The version query, apart from everything else: a host asks it before it trusts any other export.
#include "enterprise-plugin/plugin_version.h"

#include "libvtenterprise/vtenterprise.h"

const char *GetExtensionLibraryVersion() { return Vesk_Version(); }
