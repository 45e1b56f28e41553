// The state of one recipient for one message, from the store and the user's confirmations.
#pragma once

#include "common/core.h"
#include "common/message.h"
#include "tbx/confirmation.h"
#include "tbx/sent.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

enum class delivery_state { sent = 0, delivered = 1, confirmed = 2 };

struct recipient_status {
    delivery_state state = delivery_state::sent; // sent: not delivered
    bool late = false;                           // confirmed, but after the expiry
    int64_t time = 0;                            // of the confirmation
    std::string detail;                          // how it was confirmed, uncleaned
};

// What the users' mailboxes record. Each mailbox is read once, by one child, when its user is first
// asked for. A read that failed is not kept: the next call tries again.
class confirmation_cache {
public:
    confirmation_cache() = default; // of every message
    // Of one message only: the time to read everything grows with what users have ever confirmed.
    explicit confirmation_cache(int64_t only_id);

    // Returns what the user's mailbox records, or null with errno when it could not be read. The
    // result is valid as long as the cache.
    [[nodiscard]] const confirmation_list *find(const char *user);

private:
    [[nodiscard]] int read(const char *user, confirmation_list *list);

    std::optional<std::string> id_lines_; // one on each line; none: not listed yet
    std::unordered_map<std::string, confirmation_list, string_hash, std::equal_to<>> users_;
};

// Derives the state of `user` for `message`.
//   cutoff  the revocation time, 0 for none; a later confirmation does not count
// Returns 0, or -1 with errno when the confirmations could not be read.
[[nodiscard]] int recipient_state(const char *user, int64_t id, const delivery_table &delivery,
                                  const message_record &message, int64_t cutoff,
                                  confirmation_cache *cache, recipient_status *out);
