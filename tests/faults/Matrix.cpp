#include "tests/faults/Matrix.h"

#include <cerrno>

namespace faults {

namespace {

constexpr FailingCall kNoCall{};

// Columns: start, first step, middle, last step, after the end. See Expectation.h for the words.
//
// What may surprise is the module's established behaviour, not an oversight here:
// - An archive whose size is not known yet has equal counters when it fails: failure, then success.
// - Exit codes of zcat and tar are looked at while there is something to read only; so an archive
//   that ends early, or is not unpacked, may be a success. An image's size is not compared.
// - A command whose shell is killed, or cannot be started, counts as done. The command after it
//   notices, or nobody does.
// - Settings that fail stay mounted. The host unmounts them.
// - A check goes on after an abort until the feature ends, and repeats its failure.
// - A check that cannot start leaves the target's descriptor open.
const std::vector<Row> kRows = {
    {"no fault, the host aborts",
     Act::kAbort,
     Role::kNone,
     kNoCall,
     {"A/mpp+2 A/mpp+2 A/mpp+2 A/mpp+2 SA", "A A A A SA", "G G G G SA", "SA -c -c -c SA",
      "SA SA SA SA SA"},
     "an aborted archive leaves its children and its mount to the host; commands run to their end"},
    {"decompressor killed by TERM",
     Act::kTerm,
     Role::kDecompressor,
     kNoCall,
     {"F F F S -e", "F F F F -e", "F F F F -e", "-d -d -d -d -d", "-d -d -d -d -d"},
     "in an archive's last step it has ended already"},
    {"decompressor killed by KILL",
     Act::kKill,
     Role::kDecompressor,
     kNoCall,
     {"F F F S -e", "F F F F -e", "F F F F -e", "-d -d -d -d -d", "-d -d -d -d -d"},
     ""},
    {"decompressor stopped, then continued",
     Act::kStop,
     Role::kDecompressor,
     kNoCall,
     {"S S S S -e", "S S S S -e", "S S S S -e", "-d -d -d -d -d", "-d -d -d -d -d"},
     ""},
    {"writer killed by TERM",
     Act::kTerm,
     Role::kWriter,
     kNoCall,
     {"F F F F -e", "F F F F -e", "-w -w -w -w -w", "F F F F -e", "F/f F/mf F/mf F/mf -e"},
     "the shell of a command reports it with its exit code"},
    {"writer killed by KILL",
     Act::kKill,
     Role::kWriter,
     kNoCall,
     {"F F F F -e", "F F F F -e", "-w -w -w -w -w", "F F F F -e", "F/f F/mf F/mf F/mf -e"},
     ""},
    {"shell of the command killed by KILL",
     Act::kKill,
     Role::kShell,
     kNoCall,
     {"-p -p -p -p -p", "-p -p -p -p -p", "-p -p -p -p -p", "s s s s -e", "F/x F/mf s S/mf -e"},
     "a command whose shell is killed counts as done; after settings that were never mounted a "
     "folder with the data stays, which the host names but does not remove"},
    {"writer stopped, then continued",
     Act::kStop,
     Role::kWriter,
     kNoCall,
     {"S S S S -e", "S S S S -e", "-w -w -w -w -w", "S S S S -e", "S S S S -e"},
     ""},
};

const std::vector<std::pair<char, const char*>> kReasons = {
    {'d', "the item has no decompressor"},
    {'w', "the item writes nothing"},
    {'p', "the host's child is the tool itself, without a shell"},
    {'e', "the children and tools have ended by then"},
    {'c', "the item is one command, and the host's thread is inside it"},
    {'o', "the module makes no such call then"},
    {'l', "late means when all but the last byte is through, which is in the last step"},
    {'x', "what the item does then does not touch it"},
    {'s', "the module reads through the C library's streams, which are not covered"},
};

}  // namespace

const std::vector<Row>& Rows() {
  return kRows;
}

const std::vector<std::pair<char, const char*>>& Reasons() {
  return kReasons;
}

const char* NameOf(Kind kind) {
  constexpr const char* kNames[] = {"archive", "image", "image check", "factory data",
                                    "end-of-line settings"};
  return kNames[static_cast<std::size_t>(kind)];
}

const char* NameOf(Moment moment) {
  constexpr const char* kNames[] = {"start", "first step", "middle", "last step", "after the end"};
  return kNames[static_cast<std::size_t>(moment)];
}

}  // namespace faults
