/* Declarations of the bridge family are added here by its owner. */
#ifndef PELORUS_BRIDGE_H
#define PELORUS_BRIDGE_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

PLR_EXTERN_C_END

#endif
