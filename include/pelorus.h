/*
 * pelorus: host-side virtual network configuration library.
 * The whole C interface of libpelorus.so; compiles as C99 and C++.
 */
#ifndef PELORUS_H
#define PELORUS_H

#include "pelorus/types.h"
#include "pelorus/core.h"
#include "pelorus/netcfg.h"
#include "pelorus/vnet.h"
#include "pelorus/bridge.h"
#include "pelorus/files.h"
#include "pelorus/svcfiles.h"
#include "pelorus/services.h"
#include "pelorus/api.h"
#include "pelorus/dbapi.h"

#endif /* PELORUS_H */
