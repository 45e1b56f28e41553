// The text of the hooks, with placeholders that shell.cpp fills in.
#pragma once

extern const char *const BASH_HOOK;
extern const char *const ZSH_HOOK;
extern const char *const FISH_HOOK;
extern const char *const PROFILE;
