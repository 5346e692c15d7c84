// libsluice: the difference library that reports name beside their own version.
#ifndef SLUICE_SLUICE_H
#define SLUICE_SLUICE_H

#ifdef __cplusplus
extern "C" {
#endif

// Static text "1.4.0".
const char *SLC_Version(void);

#ifdef __cplusplus
}
#endif

#endif
