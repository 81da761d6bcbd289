// The library's names for its arrays of geometry values and scalars.
#pragma once

#include "gfit/platform/dynarr.h"
#include "gfit/platform/pagearr.h"
#include "gfit/platform/point.h"

using giPoint2coDynArr = coDynArr<giPoint2>;
using giPoint3coDynArr = coDynArr<giPoint3>;
using giPoint3coPageArr = coPageArr<giPoint3>;
using giVector2coDynArr = coDynArr<giVector2>;
using giVector3coDynArr = coDynArr<giVector3>;
using giUnitVec2coDynArr = coDynArr<giUnitVec2>;
using giUnitVec3coDynArr = coDynArr<giUnitVec3>;
using doublecoDynArr = coDynArr<double>;
using doublecoPageArr = coPageArr<double>;
using intcoDynArr = coDynArr<int>;
