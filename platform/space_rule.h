// How much of the repository's volume stays free.

#ifndef PLATFORM_SPACE_RULE_H
#define PLATFORM_SPACE_RULE_H

// With less than this no command runs.
inline constexpr float MIN_PERCENT_FREE = 1.0F;

// The share that a copied package leaves free. Single precision: the verdict at the boundary is the one that
// administrators know.
inline constexpr float MIN_SHARE_LEFT_FREE = 0.015F;

#endif
