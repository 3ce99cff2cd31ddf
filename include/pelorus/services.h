/* Declarations of the services family are added here by its owner. */
#ifndef PELORUS_SERVICES_H
#define PELORUS_SERVICES_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

PLR_EXTERN_C_END

#endif
