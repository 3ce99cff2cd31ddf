/* Declarations of the files family are added here by its owner. */
#ifndef PELORUS_FILES_H
#define PELORUS_FILES_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

PLR_EXTERN_C_END

#endif
