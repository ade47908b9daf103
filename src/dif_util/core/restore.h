/* Puts a value of the caller's record back at the end of the scope, however it is left. */
#pragma once

template <typename T>
class Restore {
public:
    explicit Restore(T &value) : value_{value}, saved_{value} {}
    ~Restore() { value_ = saved_; }
    Restore(const Restore &) = delete;
    Restore &operator=(const Restore &) = delete;

private:
    T &value_;
    const T saved_;
};
