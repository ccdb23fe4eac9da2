// Who may run the repository commands.

#ifndef PLATFORM_ADMIN_H
#define PLATFORM_ADMIN_H

// The kind of right that is asked for. A plain number, as all callers of the platform pass it.
using user_permission_type_t = int;

inline constexpr user_permission_type_t USER_PERMISSION_ADMINISTRATOR = 2;

// Whether the calling user holds the right: non-zero when the effective user is root, whatever kind is asked
// for.
int is_user_admin(user_permission_type_t permission);

#endif
