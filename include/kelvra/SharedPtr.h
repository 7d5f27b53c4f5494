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
 */
template <typename T>
class SharedPtr {
public:
    SharedPtr() : ptr(nullptr), count(nullptr) {}

    explicit SharedPtr(T* p) : ptr(p), count(p ? new std::atomic<long>(1) : nullptr) {}

    SharedPtr(const SharedPtr& other) : ptr(other.ptr), count(other.count) { acquire(); }

    SharedPtr(SharedPtr&& other) noexcept : ptr(other.ptr), count(other.count) {
        other.ptr = nullptr;
        other.count = nullptr;
    }

    template <typename U>
    SharedPtr(const SharedPtr<U>& other) : ptr(other.ptr), count(other.count) { acquire(); }

    ~SharedPtr() { release(); }

    SharedPtr& operator=(SharedPtr other) noexcept {
        swap(other);
        return *this;
    }

    void swap(SharedPtr& other) noexcept {
        std::swap(ptr, other.ptr);
        std::swap(count, other.count);
    }

    /** Drops this reference (deleting the object if it was the last) and holds p instead. */
    void reset(T* p = nullptr) { SharedPtr(p).swap(*this); }

    T* get() const { return ptr; }
    T* operator->() const { return ptr; }
    T& operator*() const { return *ptr; }
    explicit operator bool() const { return ptr != nullptr; }
    bool isNull() const { return ptr == nullptr; }

    long useCount() const { return count ? count->load(std::memory_order_acquire) : 0; }

private:
    template <typename U> friend class SharedPtr;

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

template <typename T, typename U>
bool operator==(const SharedPtr<T>& a, const SharedPtr<U>& b) { return a.get() == b.get(); }
template <typename T, typename U>
bool operator!=(const SharedPtr<T>& a, const SharedPtr<U>& b) { return a.get() != b.get(); }

} // namespace kelvra

#endif
