// A small growable array of trivially copyable elements, with the growth rule
// of the Win32 collection it stands in for.
//
// SetAtGrow(index, value) on an array without storage allocates exactly
// index + 1 zeroed slots. When the capacity is too small it grows by the
// grow-by field or, while that is 0, by size / 8 clamped to [4, 1024] slots;
// the new capacity is the larger of capacity + growth and index + 1. Removing
// elements never shrinks the storage. An allocation failure leaves the array
// as it was and is not reported.
#pragma once

#include <cstdlib>
#include <cstring>
#include <type_traits>

template <typename TYPE, typename ARG_TYPE>
class CArray {
  static_assert(std::is_trivially_copyable<TYPE>::value, "CArray holds plain values");

 public:
  CArray() = default;
  CArray(const CArray&) = delete;
  CArray& operator=(const CArray&) = delete;
  ~CArray() { RemoveAll(); }

  int GetSize() const { return m_nSize; }
  int GetCapacity() const { return m_nMaxSize; }
  int GetGrowBy() const { return m_nGrowBy; }
  TYPE GetAt(int index) const { return m_pData[index]; }
  TYPE& ElementAt(int index) { return m_pData[index]; }

  void SetAtGrow(int index, ARG_TYPE value) {
    if (index < 0) return;
    if (m_pData == nullptr) {
      TYPE* data = static_cast<TYPE*>(calloc(static_cast<size_t>(index) + 1, sizeof(TYPE)));
      if (data == nullptr) return;
      m_pData = data;
      m_nMaxSize = index + 1;
    } else if (index >= m_nMaxSize) {
      int growBy = m_nGrowBy;
      if (growBy == 0) {
        growBy = m_nSize / 8;
        if (growBy < 4) growBy = 4;
        if (growBy > 1024) growBy = 1024;
      }
      int newMax = m_nMaxSize + growBy;
      if (newMax < index + 1) newMax = index + 1;
      TYPE* data = static_cast<TYPE*>(calloc(static_cast<size_t>(newMax), sizeof(TYPE)));
      if (data == nullptr) return;
      memcpy(static_cast<void*>(data), m_pData, static_cast<size_t>(m_nSize) * sizeof(TYPE));
      free(m_pData);
      m_pData = data;
      m_nMaxSize = newMax;
    }
    if (index >= m_nSize) m_nSize = index + 1;
    m_pData[index] = value;
  }

  int Add(ARG_TYPE value) {
    int index = m_nSize;
    SetAtGrow(index, value);
    return index;
  }

  // Removes one element; later elements move down one place, order kept.
  void RemoveAt(int index) {
    if (index < 0 || index >= m_nSize) return;
    int after = m_nSize - index - 1;
    if (after > 0) {
      memmove(static_cast<void*>(m_pData + index), m_pData + index + 1,
              static_cast<size_t>(after) * sizeof(TYPE));
    }
    --m_nSize;
  }

  void RemoveAll() {
    free(m_pData);
    m_pData = nullptr;
    m_nSize = 0;
    m_nMaxSize = 0;
  }

 private:
  TYPE* m_pData = nullptr;
  int m_nSize = 0;
  int m_nMaxSize = 0;
  int m_nGrowBy = 0;
};
