/* wex_attributes: what a compiler is told beyond the language, and what it is asked to check. */
#ifndef WEX_ATTRIBUTES_H
#define WEX_ATTRIBUTES_H

/* Clang checks at compile time that whoever walks or changes a chain holds its lock, and the order of locks.
 * Only in C++, where a member can name its own object as its guard. */
#if defined(__clang__) && defined(__cplusplus)
#define WEX_TSA(attribute) __attribute__((attribute))
#else
#define WEX_TSA(attribute)
#endif

#if defined(__cplusplus)
#define WEX_STATIC_ASSERT(condition, reason) static_assert(condition, reason)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define WEX_STATIC_ASSERT(condition, reason) _Static_assert(condition, reason)
#else
#define WEX_STATIC_ASSERT(condition, reason) extern char wex_static_assert_holds[(condition) ? 1 : -1]
#endif

#define WEX_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))

#endif
