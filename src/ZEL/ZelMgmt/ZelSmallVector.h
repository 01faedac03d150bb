// A list that keeps its first N elements in place: the lists a read builds
// per call (a user's group records, the groups they name) hardly ever outgrow
// a few, and each allocation counts on the sign-on path.  Only the elements
// in use are ever constructed, so an empty list costs nothing to make or
// drop.  It stays where it was made: its data may point into itself.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace zel {

template <class T, size_t N>
class SmallVector {
public:
    SmallVector() = default;
    // n value-initialised elements.
    explicit SmallVector(size_t n) { grow_to(n); }
    SmallVector(const SmallVector &) = delete;
    SmallVector &operator=(const SmallVector &) = delete;
    ~SmallVector() {
        clear();
        if (data_ != in_place()) ::operator delete(data_);
    }

    void push_back(const T &value) {
        if (size_ == capacity_) {
            T copy(value);  // value may lie in the storage about to move
            reserve(2 * capacity_);
            ::new (static_cast<void *>(data_ + size_)) T(std::move(copy));
        } else {
            ::new (static_cast<void *>(data_ + size_)) T(value);
        }
        ++size_;
    }
    // Value-initialised elements added up to n.
    void grow_to(size_t n) {
        if (n <= size_) return;
        reserve(n);
        std::uninitialized_value_construct_n(data_ + size_, n - size_);
        size_ = n;
    }
    void clear() {
        std::destroy_n(data_, size_);
        size_ = 0;
    }
    T &operator[](size_t i) { return data_[i]; }
    const T &operator[](size_t i) const { return data_[i]; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

private:
    T *in_place() { return reinterpret_cast<T *>(storage_); }
    void reserve(size_t n) {
        if (n <= capacity_) return;
        T *grown = static_cast<T *>(::operator new(n * sizeof(T)));
        std::uninitialized_move_n(data_, size_, grown);
        std::destroy_n(data_, size_);
        if (data_ != in_place()) ::operator delete(data_);
        data_ = grown;
        capacity_ = n;
    }

    alignas(T) unsigned char storage_[N * sizeof(T)];
    T *data_ = in_place();
    size_t size_ = 0, capacity_ = N;
};

}  // namespace zel
