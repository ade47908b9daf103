/* The two code sections in which the routines of the data path lie together. Templates drop a section attribute: a hot
 * routine is a plain function, or is inlined into one. */
#pragma once

#define DIF_CHECK_TEXT __attribute__((section("dif_Check.text")))
#define DIF_INSERT_TEXT __attribute__((section("dif_Insert.text")))

/* Helpers of the block loops: part of the loop that calls them. */
#define DIF_CHECK_HELPER DIF_CHECK_TEXT __attribute__((always_inline)) inline
#define DIF_INSERT_HELPER DIF_INSERT_TEXT __attribute__((always_inline)) inline
