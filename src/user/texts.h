// The words that the user's programs say, in the user's language.
#pragma once

#include "common/texts.h" // IWYU pragma: export
