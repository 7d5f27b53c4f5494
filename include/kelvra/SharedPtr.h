// SPDX-License-Identifier: Apache-2.0
#ifndef KELVRA_SHAREDPTR_H
#define KELVRA_SHAREDPTR_H

#include <atomic>
#include <cstddef>
#include <utility>

namespace kelvra {

/**
 * A reference-counted pointer. Copies share one count (atomic, so copies may
 * be made and dropped on different threads); the last one to go deletes the
 * object with plain delete. A SharedPtr<Derived> converts to SharedPtr<Base>.
 *
 * The count is thread-safe, the object is not: two threads that use the
 * object through their own copies need their own lock. One SharedPtr object
 * itself must not be changed on one thread while another reads it.
 *
 * @tparam T the type of the object; deleted as a T, so a base class needs a
 *           virtual destructor when a SharedPtr<Base> may be the last copy.
 */
template <typename T>
class SharedPtr {
public:
    /** An empty pointer: holds nothing, useCount() is 0. */
    SharedPtr() : ptr(nullptr), count(nullptr) {}

    /**
     * Takes ownership of p (may be null). p must come from new and must not
     * be owned by anything else.
     * @throws std::bad_alloc when the count cannot be allocated (p is then leaked).
     */
    explicit SharedPtr(T* p) : ptr(p), count(p ? new std::atomic<long>(1) : nullptr) {}

    /** Shares other's object: the count goes up by one. */
    SharedPtr(const SharedPtr& other) : ptr(other.ptr), count(other.count) { acquire(); }

    /** Takes over other's reference; other is left empty. */
    SharedPtr(SharedPtr&& other) noexcept : ptr(other.ptr), count(other.count) {
        other.ptr = nullptr;
        other.count = nullptr;
    }

    /** Shares the object of a SharedPtr to a type that converts to T* (a derived class). */
    template <typename U>
    SharedPtr(const SharedPtr<U>& other) : ptr(other.ptr), count(other.count) {
        acquire();
    }

    /** Drops this reference; the last one deletes the object. */
    ~SharedPtr() { release(); }

    /** Drops the reference held so far and shares (or, from a temporary, takes over) other's. */
    SharedPtr& operator=(SharedPtr other) noexcept {
        swap(other);
        return *this;
    }

    /** Exchanges the objects of the two pointers; no count changes. */
    void swap(SharedPtr& other) noexcept {
        std::swap(ptr, other.ptr);
        std::swap(count, other.count);
    }

    /** Drops this reference (deleting the object if it was the last) and holds p instead. */
    void reset(T* p = nullptr) { SharedPtr(p).swap(*this); }

    /** The object, or null; still owned by the pointer. */
    T* get() const { return ptr; }
    /** The object's members; the pointer must not be empty. */
    T* operator->() const { return ptr; }
    /** The object; the pointer must not be empty. */
    T& operator*() const { return *ptr; }
    /** True when the pointer holds an object. */
    explicit operator bool() const { return ptr != nullptr; }
    /** True when the pointer is empty. */
    bool isNull() const { return ptr == nullptr; }

    /** How many SharedPtr share the object (0 for an empty one); a snapshot when other threads hold copies. */
    long useCount() const { return count ? count->load(std::memory_order_acquire) : 0; }

private:
    template <typename U>
    friend class SharedPtr;

    void acquire() {
        if (count) count->fetch_add(1, std::memory_order_relaxed);
    }
    void release() {
        if (count && count->fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete ptr;
            delete count;
        }
        ptr = nullptr;
        count = nullptr;
    }

    T* ptr;
    std::atomic<long>* count;
};

/** True when both point to the same object (or both are empty). */
template <typename T, typename U>
bool operator==(const SharedPtr<T>& a, const SharedPtr<U>& b) {
    return a.get() == b.get();
}
/** True when they point to different objects. */
template <typename T, typename U>
bool operator!=(const SharedPtr<T>& a, const SharedPtr<U>& b) {
    return a.get() != b.get();
}

} // namespace kelvra

#endif
