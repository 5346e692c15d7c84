// What the plug-in shows to the programs that load it; everything else is hidden.
#ifndef LIBVTENTERPRISE_EXPORT_H
#define LIBVTENTERPRISE_EXPORT_H

// Stands before the declaration of every exported function: C linkage, its own name. Exported names are listed in
// enterprise-plugin/exported_names.txt, and a test holds the library against that list.
#define VT_EXPORT extern "C" __attribute__((visibility("default")))

#endif
