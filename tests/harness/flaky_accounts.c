/* An account service for nsswitch.conf ("flaky") that knows one user, dora (UID 2001), and one
 * group, painters, with dora in it. While the file FLAKY_DOWN exists it does not answer: every
 * call fails with the error number that stands in the file. */
#include <errno.h>
#include <grp.h>
#include <nss.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int walked; /* whether dora has been given out in this walk */

static enum nss_status state(int *error) {
    const char *place = getenv("FLAKY_DOWN");
    FILE *file = place != NULL ? fopen(place, "re") : NULL;
    int number = 0;
    if (file != NULL) {
        if (fscanf(file, "%d", &number) != 1)
            number = EIO;
        fclose(file);
    }
    if (number == 0)
        return NSS_STATUS_SUCCESS;
    *error = number;
    return number == EAGAIN ? NSS_STATUS_TRYAGAIN : NSS_STATUS_UNAVAIL;
}

static enum nss_status give_dora(struct passwd *entry, char *buffer, size_t bytes, int *error) {
    static const char text[] = "dora\0x\0/\0/bin/sh";
    if (bytes < sizeof text) {
        *error = ERANGE;
        return NSS_STATUS_TRYAGAIN;
    }
    memcpy(buffer, text, sizeof text);
    entry->pw_name = entry->pw_gecos = buffer;
    entry->pw_passwd = buffer + 5;
    entry->pw_dir = buffer + 7;
    entry->pw_shell = buffer + 9;
    entry->pw_uid = entry->pw_gid = 2001;
    return NSS_STATUS_SUCCESS;
}

enum nss_status _nss_flaky_getpwnam_r(const char *name, struct passwd *entry, char *buffer,
                                      size_t bytes, int *error) {
    const enum nss_status now = state(error);
    if (now != NSS_STATUS_SUCCESS)
        return now;
    return strcmp(name, "dora") == 0 ? give_dora(entry, buffer, bytes, error) : NSS_STATUS_NOTFOUND;
}

enum nss_status _nss_flaky_getpwuid_r(uid_t uid, struct passwd *entry, char *buffer, size_t bytes,
                                      int *error) {
    const enum nss_status now = state(error);
    if (now != NSS_STATUS_SUCCESS)
        return now;
    return uid == 2001 ? give_dora(entry, buffer, bytes, error) : NSS_STATUS_NOTFOUND;
}

enum nss_status _nss_flaky_setpwent(int stay_open) {
    (void)stay_open;
    walked = 0;
    return state(&errno);
}

enum nss_status _nss_flaky_endpwent(void) {
    return NSS_STATUS_SUCCESS;
}

enum nss_status _nss_flaky_getpwent_r(struct passwd *entry, char *buffer, size_t bytes,
                                      int *error) {
    const enum nss_status now = state(error);
    if (now != NSS_STATUS_SUCCESS)
        return now;
    if (walked++)
        return NSS_STATUS_NOTFOUND;
    return give_dora(entry, buffer, bytes, error);
}

enum nss_status _nss_flaky_getgrnam_r(const char *name, struct group *entry, char *buffer,
                                      size_t bytes, int *error) {
    static const char text[] = "painters\0x\0dora";
    const enum nss_status now = state(error);
    char **members;
    if (now != NSS_STATUS_SUCCESS)
        return now;
    if (strcmp(name, "painters") != 0)
        return NSS_STATUS_NOTFOUND;
    if (bytes < 2 * sizeof *members + sizeof text) {
        *error = ERANGE;
        return NSS_STATUS_TRYAGAIN;
    }
    members = (char **)(void *)buffer;
    buffer += 2 * sizeof *members;
    memcpy(buffer, text, sizeof text);
    entry->gr_name = buffer;
    entry->gr_passwd = buffer + 9;
    entry->gr_mem = members;
    members[0] = buffer + 11;
    members[1] = NULL;
    entry->gr_gid = 2500;
    return NSS_STATUS_SUCCESS;
}
