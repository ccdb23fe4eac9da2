// The text buffers that the front end and the commands share. Each message lookup overwrites them, so a text
// is used right after it was looked up. All are zero-filled at start and always terminated.

#ifndef CLI_MESSAGE_BUFFERS_H
#define CLI_MESSAGE_BUFFERS_H

// The locale in which messages are shown; filled once, by main.
extern char lc_messages[256];

// A text on its way to the user.
extern char outline[1024];

// The text of a status in the user's locale, and the same in English for the log. An empty `msg_E` means that
// there is no English copy. The commands put the English copies of their own texts into `msg_E`, too.
extern char msg[1024];
extern char msg_E[1024];

#endif
