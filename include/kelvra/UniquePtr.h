// SPDX-License-Identifier: Apache-2.0
#ifndef KELVRA_UNIQUEPTR_H
#define KELVRA_UNIQUEPTR_H

#include <utility>

namespace kelvra {

/**
 * An owning pointer: deletes its object when it is destroyed, reset or
 * cleaned. Not copyable; movable. Not thread-safe: one UniquePtr is used by
 * one thread at a time.
 *
 * @tparam T the type of the object; deleted with plain delete as a T.
 */
template <typename T>
class UniquePtr {
public:
    /** An empty pointer. */
    UniquePtr() : ptr(nullptr) {}
    /** Takes ownership of p (may be null), which must come from new. */
    explicit UniquePtr(T* p) : ptr(p) {}
    /** Takes over other's object; other is left empty. */
    UniquePtr(UniquePtr&& other) noexcept : ptr(other.release()) {}
    UniquePtr(const UniquePtr&) = delete;
    UniquePtr& operator=(const UniquePtr&) = delete;
    /** Deletes the object, if any. */
    ~UniquePtr() { clean(); }

    /** Deletes the object held so far and takes over other's; other is left empty. */
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

private:
    T* ptr;
};

} // namespace kelvra

#endif
