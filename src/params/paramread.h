/* paramread: --name=value option reading with read marks, index lists,
 * indexed file names, and small string / numeric lists.
 * Strings passed as writable (char *) are modified in place. */
#ifndef KESTREL_PARAMREAD_H
#define KESTREL_PARAMREAD_H

#include <stdint.h>
#include "kestrel_export.h"

KESTREL_BEGIN_C

/* --- option reading ------------------------------------------------------ */
/* 1 if the element starts with "--", else 0. */
KESTREL_API int isparam(const char *param);
/* Pointer to the value text inside param when its name matches name
 * (ASCII case-insensitive, whole name), else NULL. */
KESTREL_API char *paramnamematch(char *param, const char *name);
/* Marks param as consumed by replacing its first character by a blank; 0. */
KESTREL_API int markparamasread(char *param);
/* 1 if param is marked as read (first character a blank), else 0. */
KESTREL_API int paramalreadyread(const char *param);
/* 0 if param matches name and its value converts with "%d" (param marked), else -1. */
KESTREL_API int getintparam(char *param, const char *name, int32_t *value);
/* 0 if param matches name and its value converts with "%lf" (param marked), else -1. */
KESTREL_API int getdoubleparam(char *param, const char *name, double *value);
/* Value text inside param (not copied; param marked) on a match, else NULL. */
KESTREL_API char *getstringparam(char *param, const char *name);
/* First accepted element of the list sets *value: 0; -1 (value untouched) if none. */
KESTREL_API int searchintparam(uint32_t n, char **params, const char *name, int32_t *value);
KESTREL_API int searchdoubleparam(uint32_t n, char **params, const char *name, double *value);
/* Value text of the first matching element (marked), or NULL. */
KESTREL_API char *searchstringparam(uint32_t n, char **params, const char *name);
/* 1 if any element of the list is not marked as read, else 0. */
KESTREL_API int unreadparams(uint32_t n, char **params);

/* --- index lists ("1-20,25,30-32(3)") ------------------------------------ */
/* 0 if the list is well formed (numbers must fit in 32 unsigned bits), else -1. */
KESTREL_API int strnumdiagnose(const char *list);
/* First number of the interval at pos. */
KESTREL_API uint32_t strnumintervstart(const char *pos);
/* Last number of the interval at pos (start for a single number). */
KESTREL_API uint32_t strnumintervend(const char *pos, uint32_t start);
/* Position of the next interval after pos, or NULL. */
KESTREL_API const char *strnumnextinterv(const char *pos);
/* Every number of the list, intervals expanded; *array is malloc'ed (caller frees). */
KESTREL_API uint32_t strnum2numarray(const char *list, uint32_t **array);
/* Width W of a trailing "(W)" suffix, or 0. */
KESTREL_API uint32_t strnumdigits(const char *list);
/* Number of digits of the list's last number. */
KESTREL_API uint32_t strnumdefaultdigits(const char *list);
/* Number of decimal digits of v (1 for 0). */
KESTREL_API uint32_t getdigits(uint32_t v);

/* --- file names ----------------------------------------------------------- */
/* Position of the file-name part (after the last '/' or '\\'). */
KESTREL_API const char *getfilename(const char *path);
/* Position of the last '.' of the file-name part, or NULL. */
KESTREL_API const char *getfileextension(const char *path);
/* Position of the index placeholder (first '?' or digit of the file name), or NULL. */
KESTREL_API const char *getfileindex(const char *path);
/* Writes index into the placeholder, zero-padded to its width; 0, or -1 when
 * the index needs more digits or there is no placeholder (path unchanged). */
KESTREL_API int replacefileindex(char *path, uint32_t index);
/* Replaces (or appends) the extension; caller provides room. 0 or -1. */
KESTREL_API int replacefileextension(char *path, const char *ext);
/* Replaces the file-name part; caller provides room. 0 or -1. */
KESTREL_API int replacefilename(char *path, const char *name);

/* --- string lists "{a,b}" and numeric lists "{1.5,2;30}" ------------------ */
/* New list "{}" (malloc'ed); releases old if given. */
KESTREL_API char *createemptystrlist(char *old);
/* List with text appended (may move; caller keeps the returned pointer). */
KESTREL_API char *appendstrtolist(char *list, const char *text);
/* 1 if text is a whole element of the list, else 0. */
KESTREL_API int isinstrlist(const char *list, const char *text);
/* Releases the list if given; 0. */
KESTREL_API int destroystrlist(char *list);
/* Number of elements of a numeric list, 0 if absent, empty or malformed. */
KESTREL_API uint32_t getnelemsinnumlist(const char *list);
/* Reads n numbers of the list into out; 0. */
KESTREL_API int getelemsinnumlist(const char *list, uint32_t n, double *out);

KESTREL_END_C
#endif
