// A pointer that owns or borrows its object.
#pragma once

#include <memory>
#include <type_traits>

// Points at an object (T) or an array (T[]), initially null, and is used like a pointer. An object
// passed to Own is deleted when the pointer is changed or destroyed; one passed to Borrow stays the
// caller's. Not copied.
template <class T>
class MaybeOwned {
public:
    using Element = std::remove_extent_t<T>;

    MaybeOwned() = default;
    ~MaybeOwned() { Set(nullptr, false); }
    MaybeOwned(const MaybeOwned&) = delete;
    MaybeOwned& operator=(const MaybeOwned&) = delete;

    void Own(Element* pointer) { Set(pointer, true); }

    // Borrowing the current object changes nothing: an owned one stays owned.
    void Borrow(Element* pointer) {
        if (pointer != m_pPointer) {
            Set(pointer, false);
        }
    }

    operator Element*() const { return m_pPointer; }
    Element* operator->() const { return m_pPointer; }

private:
    void Set(Element* pointer, bool own) {
        if (m_bOwn) {
            std::default_delete<T>()(m_pPointer);
        }
        m_pPointer = pointer;
        m_bOwn = own;
    }

    Element* m_pPointer = nullptr;
    bool m_bOwn = false;  // whether to delete it
};
