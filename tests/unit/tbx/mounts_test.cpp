#include "tbx/mounts.h"

#include "support.h"

#include <cerrno>

namespace {

constexpr const char *PLACE = "/users/pat";

// A line of the table, with what stands behind the place and the options.
std::string line_at(const std::string &place, const std::string &rest) {
    return "36 35 98:0 / " + place + " rw,noatime" + rest + "\n";
}

mount_maker maker_at(const std::string &table, std::string_view path = PLACE) {
    return mountinfo_topmost(table, path).maker;
}

// Who made a mount of this type and with these options of its file system.
mount_maker maker_of_mount(const std::string &type, const std::string &options) {
    return maker_at(line_at(PLACE, " - " + type + " source " + options));
}

} // namespace

TEST(MountMaker, IsNobodyWhereNothingIsMounted) {
    EXPECT_EQ(maker_at(""), mount_maker::nobody);
    EXPECT_EQ(maker_at("\n\n"), mount_maker::nobody);
    const std::string around = line_at("/users", " - ext4 /dev/sda1 rw") +
                               line_at("/users/pat/inbox", " - fuse source rw,user_id=1001") +
                               line_at("/users/patricia", " - tmpfs tmpfs rw");
    EXPECT_EQ(maker_at(around), mount_maker::nobody);
}

TEST(MountMaker, IsTheAdministratorForWhatOnlyRootCanMount) {
    for (const char *type : {"ext4", "tmpfs", "nfs4", "autofs", "overlay", "fuselike", "nofuse"})
        EXPECT_EQ(maker_of_mount(type, "rw"), mount_maker::administrator) << type;
}

TEST(MountMaker, IsTheUserForAFileSystemOfTheirOwn) {
    for (const char *type : {"fuse", "fuseblk", "fuse.sshfs", "fuseblk.any"})
        EXPECT_EQ(maker_of_mount(type, "rw,user_id=1001,group_id=1001,allow_other"),
                  mount_maker::user)
            << type;
}

TEST(MountMaker, IsTheAdministratorForAFuseFileSystemOfRoot) {
    for (const char *options :
         {"user_id=0", "rw,user_id=0,group_id=0", "rw,user_id=0", "user_id=0,rw"})
        EXPECT_EQ(maker_of_mount("fuse.sshfs", options), mount_maker::administrator) << options;
}

TEST(MountMaker, IsTheUserForOptionsThatOnlyLookLikeRoots) {
    for (const char *options : {"rw", "rw,user_id=01", "rw,user_id=00", "rw,xuser_id=0,group_id=0",
                                "rw,user_id=1000,group_id=0", "rw,user_id=", "rw,USER_ID=0"})
        EXPECT_EQ(maker_of_mount("fuse", options), mount_maker::user) << options;
}

TEST(MountMaker, OptionsOfTheMountItselfSayNothing) {
    const std::string forged = "36 35 98:0 / " + std::string(PLACE) +
                               " rw,user_id=0 master:1 - fuse user_id=0 rw,user_id=1001\n";
    EXPECT_EQ(maker_at(forged), mount_maker::user);
}

TEST(MountMaker, TagsMayBeMissingOrMany) {
    for (const char *tags : {"", " shared:1", " shared:1 master:2 propagate_from:3 unbindable"}) {
        const std::string rest = std::string(tags) + " - fuse source rw,user_id=1001";
        EXPECT_EQ(maker_at(line_at(PLACE, rest)), mount_maker::user) << tags;
        EXPECT_EQ(maker_at(line_at(PLACE, std::string(tags) + " - tmpfs source rw")),
                  mount_maker::administrator)
            << tags;
    }
}

TEST(MountMaker, OfSeveralMountsTheLastIsOnTop) {
    const std::string of_user = line_at(PLACE, " - fuse source rw,user_id=1001");
    const std::string of_root = line_at(PLACE, " - tmpfs tmpfs rw");
    EXPECT_EQ(maker_at(of_root + of_user), mount_maker::user);
    EXPECT_EQ(maker_at(of_user + of_root), mount_maker::administrator);
    EXPECT_EQ(maker_at(of_user + of_root + line_at("/other", " - fuse source rw")),
              mount_maker::administrator);
}

TEST(MountMaker, PlaceIsReadWithoutTheKernelsEscapes) {
    const std::string rest = " - fuse source rw,user_id=1001";
    EXPECT_EQ(maker_at(line_at("/users/a\\040b\\011c\\012d\\134e", rest), "/users/a b\tc\nd\\e"),
              mount_maker::user);
    EXPECT_EQ(maker_at(line_at("/users/\\303\\244", rest), "/users/\xc3\xa4"), mount_maker::user);
    EXPECT_EQ(maker_at(line_at("/users/a\\134040b", rest), "/users/a\\040b"), mount_maker::user);
}

TEST(MountMaker, BackslashThatBeginsNoEscapeStandsForItself) {
    const std::string rest = " - fuse source rw,user_id=1001";
    for (const std::string place : {"/a\\", "/a\\04", "/a\\089", "/a\\xyz", "/a\\04\\"})
        EXPECT_EQ(maker_at(line_at(place, rest), place), mount_maker::user) << place;
}

TEST(MountMaker, EmptySourceIsAFieldToo) {
    EXPECT_EQ(maker_at(line_at(PLACE, " - fuse  rw,user_id=0")), mount_maker::administrator);
}

TEST(MountMaker, LineThatIsTooShortIsNeverTheAdministrators) {
    for (const char *rest : {" -", " - tmpfs", " - tmpfs tmpfs", " shared:1", " shared:1 - tmpfs"})
        EXPECT_EQ(maker_at(line_at(PLACE, rest)), mount_maker::user) << rest;
}

TEST(MountMaker, LineWithoutRoomForAPlaceIsPassedOver) {
    for (const char *line : {"36", "36 35 98:0 /", "36 35 98:0 / /users/pat", "-", " ", "     "})
        EXPECT_EQ(maker_at(std::string(line) + "\n"), mount_maker::nobody) << line;
}

TEST(MountMaker, LastLineNeedsNoNewline) {
    std::string table = line_at(PLACE, " - fuse source rw,user_id=1001");
    table.pop_back();
    EXPECT_EQ(maker_at(table), mount_maker::user);
}

// ---- The table of this machine ------------------------------------------------------------

namespace {

void print_maker(const std::string &path) {
    mount_point mount;
    if (mount_point_of(path, &mount) != 0)
        throw_errno(path);
    printf("%s ", mount.maker == mount_maker::nobody          ? "nobody"
                  : mount.maker == mount_maker::administrator ? "administrator"
                                                              : "user");
}

} // namespace

TEST(MountMakerOf, IsReadFromTheTableOfThisProcess) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_on(private_machine(), [] {
        const std::string place = "/etc/a place";
        std::filesystem::create_directory(place);
        print_maker(place);
        if (mount("tmpfs", place.c_str(), "tmpfs", 0, nullptr) != 0)
            throw_errno(place);
        print_maker(place);
    });
    EXPECT_EQ(child.exit_status, 0) << child.err;
    EXPECT_EQ(child.out, "nobody administrator ");
}

TEST(MountIdOfFd, IsThatOfTheMountItWasOpenedIn) {
    SKIP_UNLESS_ROOT();
    const child_result child = run_on(private_machine(), [] {
        const std::string place = "/etc/a place";
        std::filesystem::create_directory(place);
        if (mount("tmpfs", place.c_str(), "tmpfs", 0, nullptr) != 0)
            throw_errno(place);
        mount_point lower;
        const unique_fd fd(open(place.c_str(), O_PATH));
        if (mount_point_of(place, &lower) != 0 || mount_id_of_fd(fd.get()) != lower.id)
            return 1;
        if (mount("tmpfs", place.c_str(), "tmpfs", 0, nullptr) != 0)
            throw_errno(place);
        const unique_fd above(open(place.c_str(), O_PATH));
        return mount_id_of_fd(above.get()) != lower.id && mount_id_of_fd(-1) == -1 ? 10 : 2;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(MountMakerOf, FailsWhereTheTableCannotBeRead) {
    const child_result child = run_in_child([] {
        leave_descriptors(0);
        mount_point mount;
        return mount_point_of("/", &mount) == -1 && errno == EMFILE ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}

TEST(MountMakerOf, FailsWhereAReadFails) {
    const child_result child = run_in_child([] {
        refuse_call(SYS_read, EIO);
        mount_point mount;
        return mount_point_of("/", &mount) == -1 && errno == EIO ? 10 : 20;
    });
    EXPECT_EQ(child.exit_status, 10) << child.err;
}
