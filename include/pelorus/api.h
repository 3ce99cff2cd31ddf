/* Declarations of the api family are added here by its owner. */
#ifndef PELORUS_API_H
#define PELORUS_API_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

PLR_EXTERN_C_END

#endif
