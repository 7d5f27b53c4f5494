#ifndef KELVRA_UNIQUEPTR_H
#define KELVRA_UNIQUEPTR_H

#include <utility>

namespace kelvra {

/**
 * An owning pointer: deletes its object when it is destroyed, reset or
 * cleaned. Not copyable; movable.
 */
template <typename T>
class UniquePtr {
public:
    UniquePtr() : ptr(nullptr) {}
    explicit UniquePtr(T* p) : ptr(p) {}
    UniquePtr(UniquePtr&& other) noexcept : ptr(other.release()) {}
    UniquePtr(const UniquePtr&) = delete;
    UniquePtr& operator=(const UniquePtr&) = delete;
    ~UniquePtr() { clean(); }

    UniquePtr& operator=(UniquePtr&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    /** Deletes the object, if any, and leaves the pointer empty. */
    void clean() { reset(nullptr); }

    /** Deletes the object held so far and takes ownership of p. */
    void reset(T* p) {
        T* old = ptr;
        ptr = p;
        delete old;
    }

    /** Gives up ownership without deleting; the pointer is left empty. */
    T* release() {
        T* p = ptr;
        ptr = nullptr;
        return p;
    }

    T* get() const { return ptr; }
    T* operator->() const { return ptr; }
    T& operator*() const { return *ptr; }
    explicit operator bool() const { return ptr != nullptr; }
    bool isNull() const { return ptr == nullptr; }

private:
    T* ptr;
};

} // namespace kelvra

#endif
