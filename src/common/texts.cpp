#include "common/texts.h"

#include "common/environment.h"

#include <libintl.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string>

static constexpr const char *DOMAIN = "tellbox-user";
static constexpr const char *LIBRARY_DOMAIN = "libc"; // the system's own sentences

// Returns the catalogues' folder: share/locale below the prefix whose lib/tellbox has the program.
static std::string catalogue_folder() {
    std::string prefix = lib_dir();
    for (int i = 0; i < 2; i++)
        prefix.erase(std::min(prefix.rfind('/'), prefix.size()));
    return prefix + "/share/locale";
}

// Whether a variable asks for a catalogue by its path. Only those that are installed are read: the
// texts are formats, and root runs this program too.
static bool names_a_path() {
    for (const char *name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char *value = getenv(name);
        if (value != nullptr && strchr(value, '/') != nullptr)
            return true;
    }
    return false;
}

void init_texts() {
    if (names_a_path() || setlocale(LC_MESSAGES, "") == nullptr)
        return;
    (void)bindtextdomain(DOMAIN, catalogue_folder().c_str()); // if it fails, texts stay English
    (void)bind_textdomain_codeset(DOMAIN, "UTF-8");
    (void)bind_textdomain_codeset(LIBRARY_DOMAIN, "UTF-8");
}

const char *_(const char *text) {
    return dgettext(DOMAIN, text);
}

const char *plural(const char *one, const char *many, unsigned long number) {
    return dngettext(DOMAIN, one, many, number);
}
