/* Declarations of the vnet family are added here by its owner. */
#ifndef PELORUS_VNET_H
#define PELORUS_VNET_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

PLR_EXTERN_C_END

#endif
