/*
 * Library lifecycle, answers, logging, the network-ID check, file
 * bookkeeping hooks and the address and text utilities.
 */
#ifndef PELORUS_CORE_H
#define PELORUS_CORE_H

#include <stdarg.h>
#include <stdio.h>

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

/* The process-wide library context. */
typedef struct PLRContext {
  uint16_t loadCount;    /* successful loads not yet matched by an unload */
  uint32_t currentLevel; /* mask of the log levels written */
  FILE* logStream;       /* the open log file, or NULL */
} PLRContext;

PLR_EXPORT extern PLRContext plrContext;

/* Lifecycle. */
PLR_EXPORT bool PLR_Load(int readOnly);
PLR_EXPORT void PLR_Unload2(int compact);
PLR_EXPORT void PLR_Unload(void);
PLR_EXPORT uint32_t PLR_Version(void);

/* Raw access to answers of the default database cache. */
PLR_EXPORT bool PLR_VnetCfgAddAnswer(const char* key, const char* value);
PLR_EXPORT bool PLR_VnetCfgRemoveAnswer(const char* key);
PLR_EXPORT bool PLR_VnetCfgGetAnswer(const char* key, const char** value);

PLR_EXPORT bool PLRValidateNetIDStruct(const PLR_NetworkID* netId);

/* File bookkeeping hooks: kept for interface stability, they do nothing. */
PLR_EXPORT bool PLRFileDirBookkeepingDBLoad(void);
PLR_EXPORT bool PLRFileDirBookkeepingDBUnload(void);
PLR_EXPORT bool PLRRecordFileCreation(const char* path, const char* mtime);
PLR_EXPORT bool PLRRecordDirectoryCreation(const char* path);
PLR_EXPORT bool PLRRecordFileDeletion(const char* path);
PLR_EXPORT bool PLRRecordDirectoryDeletion(const char* path);

/* Logging. */
PLR_EXPORT void PLRLog(unsigned level, const char* functionName, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
PLR_EXPORT void PLRVLog(unsigned level, const char* functionName, const char* format,
                        va_list args) __attribute__((format(printf, 3, 0)));
PLR_EXPORT uint32_t PLRGetVnetCfgLogLevel(void);
PLR_EXPORT bool PLRSetVnetCfgLogLevel(int level);
PLR_EXPORT bool PLRGetLogPath(char* buffer, size_t size);
PLR_EXPORT bool PLR_SetDefaultLogLevel(unsigned level);
PLR_EXPORT uint32_t PLR_GetDefaultLogLevel(void);
PLR_EXPORT bool PLR_SetCurrentLogLevel(unsigned level);
PLR_EXPORT uint32_t PLR_GetCurrentLogLevel(void);

/* Address and text utilities. */
PLR_EXPORT bool PLRIPStr2Int(const char* text, uint32_t* out);
PLR_EXPORT bool PLRIPInt2Str(uint32_t ip, char* buf);
PLR_EXPORT bool PLRIsValidIP(const char* text);
PLR_EXPORT bool PLRIsValidSubnetMask(const char* text);
PLR_EXPORT bool PLRMACStandardizeFormat(const char* text, char* out);
PLR_EXPORT bool PLRIsValidMACAddr(const char* text);
PLR_EXPORT bool PLRIPBelongsToSubnet(uint32_t vnet, const char* ip);
PLR_EXPORT bool PLRIsValidPrefix(const char* text);
PLR_EXPORT bool PLRIsPrefixMatch(const uint8_t* a, uint32_t aLen, const uint8_t* b,
                                 uint32_t bLen);
PLR_EXPORT bool PLRCopyFile(const char* source, const char* destination);

PLR_EXTERN_C_END

#endif /* PELORUS_CORE_H */
