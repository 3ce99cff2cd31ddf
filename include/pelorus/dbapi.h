/* Declarations of the dbapi family are added here by its owner. */
#ifndef PELORUS_DBAPI_H
#define PELORUS_DBAPI_H

#include "pelorus/types.h"

PLR_EXTERN_C_BEGIN

PLR_EXTERN_C_END

#endif
