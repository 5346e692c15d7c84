// Extension libraries, opened only when nobody else could have written them.
#ifndef VELTRANE_EXTENSION_H
#define VELTRANE_EXTENSION_H

#include <veltrane/types.h>

VT_BEGIN_DECLS

// handle of workdir/lib/<name> (dlopen: RTLD_NOW, RTLD_LOCAL); NULL when absent (verbose) or refused (error): a file
// or a directory above it that another user could have written, a file that does not load, and one whose
// GetExtensionLibraryVersion returns another text than Version(). "veltrane-enterprise.so" must have that symbol, any
// other library may lack it. Opened twice, it is counted twice
void *extension_library_open(const char *name);

// gives back one opening; NULL is fine
void extension_library_close(void *handle);

// The one handle of "veltrane-enterprise.so" for this process, opened at the first call and kept open to the end;
// NULL when absent or refused. workdir/lib is that of GetWorkDir at that moment.
void *enterprise_library(void);

// address or NULL; logs nothing
void *shlib_load(void *handle, const char *symbol);

VT_END_DECLS

#endif
