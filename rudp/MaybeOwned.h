// A pointer to what is its own or somebody else's.
#pragma once

#include <memory>

// Points at an object (T) or an array (T[]), null at first. What Own was given is deleted when the
// pointer gets another or is destroyed; what Borrow was given stays the caller's. Not copied.
template <class T>
class MaybeOwned {
public:
    using Pointer = typename std::unique_ptr<T>::pointer;

    void Own(Pointer pointer) {
        m_pOwned.reset(pointer);
        m_pPointer = pointer;
    }

    // To borrow what it has already changes nothing: its own stays its own.
    void Borrow(Pointer pointer) {
        if (pointer != m_pPointer) {
            m_pOwned.reset();
            m_pPointer = pointer;
        }
    }

    Pointer Get() const { return m_pPointer; }

private:
    std::unique_ptr<T> m_pOwned;
    Pointer m_pPointer = nullptr;
};
