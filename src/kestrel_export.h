/* Export macro for the public C entry points of the kestrel library. */
#ifndef KESTREL_EXPORT_H
#define KESTREL_EXPORT_H

#if defined(_WIN32)
#  define KESTREL_API __declspec(dllexport)
#elif defined(__GNUC__)
#  define KESTREL_API __attribute__((visibility("default")))
#else
#  define KESTREL_API
#endif

#ifdef __cplusplus
#  define KESTREL_BEGIN_C extern "C" {
#  define KESTREL_END_C }
#else
#  define KESTREL_BEGIN_C
#  define KESTREL_END_C
#endif

#endif
