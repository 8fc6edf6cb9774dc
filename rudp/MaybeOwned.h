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

    void Own(Element* pointer) {
        m_pOwned.reset(pointer);
        m_pPointer = pointer;
    }

    // Borrowing the current object changes nothing: an owned one stays owned.
    void Borrow(Element* pointer) {
        if (pointer != m_pPointer) {
            m_pOwned.reset();
            m_pPointer = pointer;
        }
    }

    operator Element*() const { return m_pPointer; }
    Element* operator->() const { return m_pPointer; }

private:
    std::unique_ptr<T> m_pOwned;
    Element* m_pPointer = nullptr;
};
