// Wraps Wine's <math.h> with what the Universal CRT's header gives C++:
// the classification macros become overloaded functions (Microsoft's STL
// brings them into std with using-declarations), long double (the same
// format as double with MSVC) gets its *l functions, and float_t, double_t,
// nan, nanf and nexttoward are added, with what ucrtbase exports and Wine does not declare. Test build only.
#pragma once
#include_next <math.h>

#ifdef __cplusplus
extern "C" {
#endif
// Exported by ucrtbase, not declared by Wine's header.
_ACRTIMP double __cdecl erfc(double);
_ACRTIMP float __cdecl erfcf(float);
_ACRTIMP double __cdecl fma(double, double, double);
_ACRTIMP float __cdecl fmaf(float, float, float);
_ACRTIMP double __cdecl nan(const char*);
_ACRTIMP float __cdecl nanf(const char*);
#ifdef __cplusplus
}
#endif

typedef float float_t;
typedef double double_t;

#define AMBREL_MATH_L1(name) \
  static __inline long double __cdecl name##l(long double x) { return name((double)x); }
#define AMBREL_MATH_L2(name) \
  static __inline long double __cdecl name##l(long double x, long double y) { return name((double)x, (double)y); }

AMBREL_MATH_L1(acosh)
AMBREL_MATH_L1(acos)
AMBREL_MATH_L1(asinh)
AMBREL_MATH_L1(asin)
AMBREL_MATH_L1(atanh)
AMBREL_MATH_L1(atan)
AMBREL_MATH_L1(cbrt)
AMBREL_MATH_L1(ceil)
AMBREL_MATH_L1(cosh)
AMBREL_MATH_L1(cos)
AMBREL_MATH_L1(erfc)
AMBREL_MATH_L1(erf)
AMBREL_MATH_L1(exp2)
AMBREL_MATH_L1(exp)
AMBREL_MATH_L1(expm1)
AMBREL_MATH_L1(fabs)
AMBREL_MATH_L1(floor)
AMBREL_MATH_L1(lgamma)
AMBREL_MATH_L1(log10)
AMBREL_MATH_L1(log1p)
AMBREL_MATH_L1(log2)
AMBREL_MATH_L1(logb)
AMBREL_MATH_L1(log)
AMBREL_MATH_L1(nearbyint)
AMBREL_MATH_L1(rint)
AMBREL_MATH_L1(round)
AMBREL_MATH_L1(sinh)
AMBREL_MATH_L1(sin)
AMBREL_MATH_L1(sqrt)
AMBREL_MATH_L1(tanh)
AMBREL_MATH_L1(tan)
AMBREL_MATH_L1(tgamma)
AMBREL_MATH_L1(trunc)
AMBREL_MATH_L2(atan2)
AMBREL_MATH_L2(copysign)
AMBREL_MATH_L2(fdim)
AMBREL_MATH_L2(fmax)
AMBREL_MATH_L2(fmin)
AMBREL_MATH_L2(fmod)
AMBREL_MATH_L2(hypot)
AMBREL_MATH_L2(nextafter)
AMBREL_MATH_L2(pow)
AMBREL_MATH_L2(remainder)
#undef AMBREL_MATH_L1
#undef AMBREL_MATH_L2

static __inline long double __cdecl fmal(long double x, long double y, long double z) {
  return fma((double)x, (double)y, (double)z);
}
static __inline long double __cdecl frexpl(long double x, int* e) { return frexp((double)x, e); }
static __inline long double __cdecl ldexpl(long double x, int e) { return ldexp((double)x, e); }
static __inline long double __cdecl scalbnl(long double x, int e) { return scalbn((double)x, e); }
static __inline long double __cdecl scalblnl(long double x, long e) { return scalbln((double)x, e); }
static __inline int __cdecl ilogbl(long double x) { return ilogb((double)x); }
static __inline long long __cdecl llrintl(long double x) { return llrint((double)x); }
static __inline long long __cdecl llroundl(long double x) { return llround((double)x); }
static __inline long __cdecl lrintl(long double x) { return lrint((double)x); }
static __inline long __cdecl lroundl(long double x) { return lround((double)x); }
static __inline long double __cdecl modfl(long double x, long double* i) {
  double whole = 0;
  const double fraction = modf((double)x, &whole);
  *i = whole;
  return fraction;
}
static __inline long double __cdecl remquol(long double x, long double y, int* q) {
  return remquo((double)x, (double)y, q);
}
static __inline long double __cdecl nanl(const char* tag) { return nan(tag); }
static __inline double __cdecl nexttoward(double x, long double y) { return nextafter(x, (double)y); }
static __inline float __cdecl nexttowardf(float x, long double y) { return nextafterf(x, (float)y); }
static __inline long double __cdecl nexttowardl(long double x, long double y) {
  return nextafter((double)x, (double)y);
}

#ifdef __cplusplus
#undef fpclassify
#undef signbit
#undef isinf
#undef isnan
#undef isnormal
#undef isfinite
#undef isgreater
#undef isgreaterequal
#undef isless
#undef islessequal
#undef islessgreater
#undef isunordered
extern "C++" {
inline int fpclassify(double x) noexcept { return _dclass(x); }
inline int fpclassify(float x) noexcept { return _fdclass(x); }
inline int fpclassify(long double x) noexcept { return _dclass((double)x); }
template <class T>
inline int fpclassify(T x) noexcept {
  return _dclass((double)x);
}
inline bool signbit(double x) noexcept { return _dsign(x) != 0; }
inline bool signbit(float x) noexcept { return _fdsign(x) != 0; }
inline bool signbit(long double x) noexcept { return _dsign((double)x) != 0; }
template <class T>
inline bool signbit(T x) noexcept {
  return _dsign((double)x) != 0;
}
template <class T>
inline bool isinf(T x) noexcept {
  return fpclassify(x) == FP_INFINITE;
}
template <class T>
inline bool isnan(T x) noexcept {
  return fpclassify(x) == FP_NAN;
}
template <class T>
inline bool isnormal(T x) noexcept {
  return fpclassify(x) == FP_NORMAL;
}
template <class T>
inline bool isfinite(T x) noexcept {
  return fpclassify(x) <= 0;
}
template <class T, class U>
inline bool isunordered(T x, U y) noexcept {
  return isnan(x) || isnan(y);
}
template <class T, class U>
inline bool isgreater(T x, U y) noexcept {
  return !isunordered(x, y) && x > y;
}
template <class T, class U>
inline bool isgreaterequal(T x, U y) noexcept {
  return !isunordered(x, y) && x >= y;
}
template <class T, class U>
inline bool isless(T x, U y) noexcept {
  return !isunordered(x, y) && x < y;
}
template <class T, class U>
inline bool islessequal(T x, U y) noexcept {
  return !isunordered(x, y) && x <= y;
}
template <class T, class U>
inline bool islessgreater(T x, U y) noexcept {
  return !isunordered(x, y) && x != y;
}
}
#endif
