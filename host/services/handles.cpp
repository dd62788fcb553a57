#include "host/services/handles.h"

#include <functional>
#include <new>
#include <utility>

namespace qmta::host::internal {

struct HandleRegistry::Slot {
  int16_t check = 0;      // check number of the current life; 0 while free
  int32_t nextCheck = 1;  // check number of the slot's next life
  std::shared_ptr<Object> object;
  Slot* nextFree = nullptr;
};

namespace {
constexpr int32_t kLastCheck = 32767;
}  // namespace

HandleRegistry& HandleRegistry::Instance() {
  // Never destroyed: handles may be checked until the process ends.
  static HandleRegistry* registry = new HandleRegistry;
  return *registry;
}

HandleRegistry::Slot* HandleRegistry::SlotOf(DBQ1_Handle handle) const {
  if (handle.object == nullptr) return nullptr;
  // Pointers into different blocks are compared through std::less, which
  // gives a total order even where the built-in comparison does not.
  std::less<const void*> before;
  for (const auto& block : blocks_) {
    const Slot* first = block.get();
    const Slot* end = first + kBlockSlots;
    if (before(handle.object, first) || !before(handle.object, end)) continue;
    auto offset = reinterpret_cast<uintptr_t>(handle.object) -
                  reinterpret_cast<uintptr_t>(first);
    if (offset % sizeof(Slot) != 0) return nullptr;
    return block.get() + offset / sizeof(Slot);
  }
  return nullptr;
}

int32_t HandleRegistry::Match(DBQ1_Handle handle, Slot** slot) const {
  Slot* found = SlotOf(handle);
  if (found == nullptr || found->check == 0 || found->check != handle.check)
    return DBQ1_STALE_HANDLE;
  *slot = found;
  return DBQ1_OK;
}

void HandleRegistry::EndLife(Slot* slot) {
  slot->check = 0;
  slot->object.reset();
  --inUse_;
  if (slot->nextCheck > kLastCheck) {
    ++retired_;  // its numbers are used up; never handed out again
    return;
  }
  slot->nextFree = free_;
  free_ = slot;
}

DBQ1_Handle HandleRegistry::Add(std::shared_ptr<Object> object) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (free_ == nullptr) {
    auto fresh = std::make_unique<Slot[]>(kBlockSlots);
    Slot* block = fresh.get();
    blocks_.reserve(blocks_.size() + 1);  // push_back below cannot throw
    blocks_.push_back(std::move(fresh));
    for (int i = kBlockSlots - 1; i >= 0; --i) {
      block[i].nextFree = free_;
      free_ = &block[i];
    }
  }
  Slot* slot = free_;
  free_ = slot->nextFree;
  slot->nextFree = nullptr;
  slot->check = static_cast<int16_t>(slot->nextCheck++);
  slot->object = std::move(object);
  ++inUse_;
  return DBQ1_Handle{slot->check, slot};
}

int32_t HandleRegistry::Find(DBQ1_Handle handle, std::shared_ptr<Object>* object) const {
  std::lock_guard<std::mutex> hold(mutex_);
  Slot* slot = nullptr;
  int32_t status = Match(handle, &slot);
  if (status == DBQ1_OK) *object = slot->object;
  return status;
}

int32_t HandleRegistry::Find(DBQ1_Handle handle, Kind kind,
                             std::shared_ptr<Object>* object) const {
  std::shared_ptr<Object> found;
  int32_t status = Find(handle, &found);
  if (status != DBQ1_OK) return status;
  if (found->kind() != kind) return DBQ1_BAD_ARGUMENT;  // a kind never changes
  *object = std::move(found);
  return DBQ1_OK;
}

int32_t HandleRegistry::Release(DBQ1_Handle handle, std::initializer_list<Kind> kinds,
                                std::shared_ptr<Object>* object) {
  std::lock_guard<std::mutex> hold(mutex_);
  Slot* slot = nullptr;
  int32_t status = Match(handle, &slot);
  if (status != DBQ1_OK) return status;
  bool allowed = false;
  for (Kind kind : kinds) allowed = allowed || slot->object->kind() == kind;
  if (!allowed) return DBQ1_BAD_ARGUMENT;
  *object = std::move(slot->object);
  EndLife(slot);
  return DBQ1_OK;
}

bool HandleRegistry::MakeStale(DBQ1_Handle handle) {
  std::lock_guard<std::mutex> hold(mutex_);
  Slot* slot = nullptr;
  if (Match(handle, &slot) != DBQ1_OK) return false;
  // The object can no longer be reached through any handle; it waits in
  // orphans_ so that the host can still close and release it.
  orphans_.push_back(std::move(slot->object));
  EndLife(slot);
  return true;
}

std::vector<std::shared_ptr<Object>> HandleRegistry::TakeOrphans() {
  std::lock_guard<std::mutex> hold(mutex_);
  return std::exchange(orphans_, {});
}

int64_t HandleRegistry::SlotsInUse() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return inUse_ + static_cast<int64_t>(orphans_.size());
}

int64_t HandleRegistry::SlotsRetired() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return retired_;
}

}  // namespace qmta::host::internal
