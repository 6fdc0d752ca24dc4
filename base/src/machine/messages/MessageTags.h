#pragma once

#include "machine/Communicator.h"

/// The tags of the messages that this layer sends itself.
///
/// Tags of users run from 0 to Communicator::Tag::upper_bound() - 1, and a message without a tag carries
/// Communicator::_defaultTag, which is upper_bound(). Own tags begin behind that, except those that other
/// programs rely on.
namespace MessageTags {

constexpr int SENDRECV = 0;
constexpr int SELF_TEST = 0;
constexpr int SYNCHRONISE = 1022;
/// The last tag of users: reports use the operations of users.
constexpr unsigned REPORTS = Communicator::Tag::upper_bound() - 1;

/// Both MPI libraries carry far larger tags than this.
constexpr int FIRST_OWN = Communicator::Tag::upper_bound() + 1;
constexpr int SLEEPING_BROADCAST = FIRST_OWN;
constexpr int CLOCKS = FIRST_OWN + 1;

} // namespace MessageTags
