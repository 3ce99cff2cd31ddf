/*
 * File names by file-type code and the operations that create, remove and
 * check the files, directories and device nodes the library touches. A vnet
 * of PLR_VNET_NONE (-1) stands for "no vnet" (the networking file, custom
 * files); `customName` is the caller's own path for PLR_FILE_CUSTOM and must
 * be NULL for every code that builds its own name.
 */
#ifndef PELORUS_FILES_H
#define PELORUS_FILES_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

/* Major number of the kavix character device; the vnet number is the minor. */
#define PLR_KAVIX_DEVICE_MAJOR 119u
/* Every path buffer holds this many bytes; a custom name has at most 255 characters. */
#define PLR_PATH_SIZE 256u

PLR_EXPORT bool PLRGetFileName(uint32_t vnet, uint32_t type, char* buf, size_t size);
PLR_EXPORT bool PLRCreateFile(uint32_t vnet, uint32_t type, const char* customName);
PLR_EXPORT bool PLRRemoveFile(uint32_t vnet, uint32_t type, const char* customName);
PLR_EXPORT bool PLRFileExists(uint32_t vnet, uint32_t type, const char* customName);

PLR_EXTERN_C_END

#endif /* PELORUS_FILES_H */
