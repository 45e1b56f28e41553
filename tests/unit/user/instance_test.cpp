#include "user/instance.h"

#include "user_support.h"

namespace {

bool outranks_nobody(pid_t /*other*/) {
    return false;
}

// What becomes of an agent whose runtime folder `prepare` has prepared.
template <typename Prepare> std::string become(Prepare &&prepare) {
    return run_on(machine_of_pat_and_sam(),
                  [&] {
                      std::filesystem::create_directories(runtime_folder());
                      prepare();
                      unique_fd lock;
                      const instance_state state = instance_become(&lock, outranks_nobody);
                      const int error = errno;
                      printf("%s", state == instance_state::only     ? "only"
                                   : state == instance_state::failed ? strerror(error)
                                                                     : "?");
                  })
        .out;
}

TEST(Instance, IsTheOnlyOneWhereNobodyHoldsTheLock) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(become([] {}), "only");
}

TEST(Instance, LocksNoFileThroughALink) {
    SKIP_UNLESS_ROOT();
    EXPECT_EQ(become([] {
                  std::filesystem::create_symlink("/run/elsewhere",
                                                  runtime_folder() + "/tellbox-agent.lock");
              }),
              "Too many levels of symbolic links");
}

} // namespace
