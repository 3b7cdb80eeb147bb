#include <algorithm>
#include <cstdlib>

#include "common/PXR_thread_internal.h"

namespace {

constexpr uint32_t kGrowth = PXR_THREAD_QUEUE_SLOTS;

uint32_t Next(const PXR_thread& worker, uint32_t slot) {
    return (slot + 1) % worker.capacity;
}

// A full ring is cut at head: the back part runs from head to the end of the array, the wrapped front part from slot 0
// up to the one empty slot before head. The shorter of the two moves into the new slots, which lie behind the old end.

void MoveFrontBehindBack(PXR_thread& worker) {
    const uint32_t front = worker.head;
    if (front == 0) return;  // not wrapped: the new slots already follow the newest action
    const uint32_t moved = std::min(front, kGrowth);
    std::copy_n(worker.queue, moved, worker.queue + worker.capacity);
    std::copy(worker.queue + moved, worker.queue + front, worker.queue);
    worker.tail = front <= kGrowth ? worker.tail + worker.capacity : worker.tail - kGrowth;
}

void MoveBackUp(PXR_thread& worker) {
    uint32_t* oldEnd = worker.queue + worker.capacity;
    std::copy_backward(worker.queue + worker.head, oldEnd, oldEnd + kGrowth);
    worker.head += kGrowth;
}

bool Grow(PXR_thread& worker) {
    if (worker.capacity > SIZE_MAX / sizeof(uint32_t) - kGrowth) return false;
    void* longer = std::realloc(worker.queue, (worker.capacity + kGrowth) * sizeof(uint32_t));
    if (longer == nullptr) return false;
    worker.queue = static_cast<uint32_t*>(longer);
    if (worker.head < worker.capacity - worker.head) {
        MoveFrontBehindBack(worker);
    } else {
        MoveBackUp(worker);
    }
    worker.capacity += kGrowth;
    return true;
}

}  // namespace

bool PXR_AppendAction(PXR_thread& worker, uint32_t action) {
    if (Next(worker, worker.tail) == worker.head && !Grow(worker)) return false;
    worker.queue[worker.tail] = action;
    worker.tail = Next(worker, worker.tail);
    return true;
}

extern "C" uint32_t PXR_thread_get_action(PXR_thread* worker) {
    if (worker == nullptr || worker->head == worker->tail) return 0;
    const uint32_t action = worker->queue[worker->head];
    worker->head = Next(*worker, worker->head);
    return action;
}
