// A shared library that is loaded while an object lives.

#ifndef TESTS_LOADED_LIBRARY_H
#define TESTS_LOADED_LIBRARY_H

class LOADED_LIBRARY {
public:
    explicit LOADED_LIBRARY(const char* file);
    ~LOADED_LIBRARY();
    LOADED_LIBRARY(const LOADED_LIBRARY&) = delete;
    LOADED_LIBRARY& operator=(const LOADED_LIBRARY&) = delete;

    bool is_loaded() const { return m_handle != nullptr; }

private:
    void* m_handle;
};

#endif
