/* What libESMTP wants of this header comes with ../compat.h. */
