// Handle registry of the query service: maps the two-part handles that
// callers copy by value to the service's objects.
//
// A handle's object pointer names a slot of the registry, never the object
// itself. Slots are allocated in blocks that are never freed, so checking a
// handle to a released object reads only registry memory. Each slot carries
// the check number of its current life; releasing the slot moves it to the
// next number, so a handle from an earlier life never matches again. A slot
// whose check number would pass 32767 is retired instead of being reused,
// and 0 is never a live check number.
#ifndef HOST_SERVICES_HANDLES_H_
#define HOST_SERVICES_HANDLES_H_

#include <stdint.h>

#include <initializer_list>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/dbq1.h"

namespace qmta::host::internal {

enum class Kind : uint8_t { kPath, kPlan, kRequest, kCursor };

// Base of every object that a handle can name.
class Object {
 public:
  explicit Object(Kind kind) : kind_(kind) {}
  virtual ~Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  Kind kind() const { return kind_; }

 private:
  const Kind kind_;
};

// Process-wide; never destroyed. Every member is thread-safe (one mutex).
class HandleRegistry {
 public:
  static HandleRegistry& Instance();

  // Gives `object` a slot and returns its handle. Throws std::bad_alloc
  // when no slot can be had.
  DBQ1_Handle Add(std::shared_ptr<Object> object);

  // The object that `handle` names. DBQ1_STALE_HANDLE when the handle names
  // no slot of ours or its check number is not the slot's current one;
  // DBQ1_BAD_ARGUMENT when the object is not of kind `kind`.
  int32_t Find(DBQ1_Handle handle, Kind kind, std::shared_ptr<Object>* object) const;
  // The same without a kind check.
  int32_t Find(DBQ1_Handle handle, std::shared_ptr<Object>* object) const;

  // Ends the slot's current life if `handle` still matches it and the
  // object is of one of `kinds` (else DBQ1_BAD_ARGUMENT); the object is
  // handed to the caller, who drops the last reference outside the
  // registry's lock.
  int32_t Release(DBQ1_Handle handle, std::initializer_list<Kind> kinds,
                  std::shared_ptr<Object>* object);

  // Moves the slot of `handle` to a new check number without releasing its
  // object, so the handle no longer matches. The object is kept aside
  // until TakeOrphans. False when the handle did not match.
  bool MakeStale(DBQ1_Handle handle);
  std::vector<std::shared_ptr<Object>> TakeOrphans();

  // Slots in use (orphans included) and slots retired, for tests.
  int64_t SlotsInUse() const;
  int64_t SlotsRetired() const;

 private:
  struct Slot;
  HandleRegistry() = default;
  Slot* SlotOf(DBQ1_Handle handle) const;      // requires mutex_
  void EndLife(Slot* slot);                    // requires mutex_
  int32_t Match(DBQ1_Handle handle, Slot** slot) const;  // requires mutex_

  static constexpr int kBlockSlots = 256;

  // Guards everything below and every slot: taken for the length of one
  // registry call by whichever thread runs a query-service operation (the
  // module's threads, the program's) or a test hook.
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<Slot[]>> blocks_;
  Slot* free_ = nullptr;      // last released slot first
  std::vector<std::shared_ptr<Object>> orphans_;
  int64_t inUse_ = 0;
  int64_t retired_ = 0;
};

}  // namespace qmta::host::internal

#endif  // HOST_SERVICES_HANDLES_H_
