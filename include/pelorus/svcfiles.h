/* Declarations of the svcfiles family are added here by its owner. */
#ifndef PELORUS_SVCFILES_H
#define PELORUS_SVCFILES_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

PLR_EXTERN_C_END

#endif
