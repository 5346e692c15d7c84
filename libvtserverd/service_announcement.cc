// The name under which a hub announces itself to the local network: one line for the service-discovery daemon, which
// puts its host name in place of %h. The blanks before ">" and before the closing tag are part of it.
#include <veltrane/globals.h>

#include "libvtenterprise/entry_points_real.h"

void FprintAvahiVeltraneTag__real(FILE *fp) noexcept
{
    (void)fprintf(fp, "<name replace-wildcards=\"yes\" >Veltrane Enterprise %s Policy Hub on %%h </name>\n", Version());
}
