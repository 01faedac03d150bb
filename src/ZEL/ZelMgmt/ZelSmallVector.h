// A list that keeps its first N elements in place: the lists a read builds
// per call (a user's group records, the marks of each) hardly ever outgrow
// a few, and each allocation counts on the sign-on path.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace zel {

template <class T, size_t N>
class SmallVector {
public:
    SmallVector() = default;
    explicit SmallVector(size_t n) { assign(n, T()); }

    void assign(size_t n, const T &value) {
        heap_.clear();
        size_ = n;
        if (n > N) heap_.assign(n, value);
        else
            for (size_t i = 0; i < n; ++i) inline_[i] = value;
    }
    void push_back(const T &value) {
        if (heap_.empty() && size_ < N) {
            inline_[size_++] = value;
            return;
        }
        if (heap_.empty()) heap_.assign(inline_.begin(), inline_.begin() + size_);
        heap_.push_back(value);
        ++size_;
    }
    T *data() { return heap_.empty() ? inline_.data() : heap_.data(); }
    const T *data() const { return heap_.empty() ? inline_.data() : heap_.data(); }
    T &operator[](size_t i) { return data()[i]; }
    const T &operator[](size_t i) const { return data()[i]; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

private:
    std::array<T, N> inline_{};
    std::vector<T> heap_;
    size_t size_ = 0;
};

}  // namespace zel
