// Square matrices over GF(2) of up to 32 rows: the linear maps that tables are put under.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <utility>

template <int SIZE>
class gf2_matrix {
public:
  static gf2_matrix identity()
  {
    gf2_matrix matrix;
    for (int i = 0; i < SIZE; i++) {
      matrix.rows_[i] = uint32_t{1} << i;
    }
    return matrix;
  }

  uint32_t &row(int i) { return rows_[i]; } // bit j is the element of column j

  uint32_t apply(uint32_t vector) const
  {
    uint32_t result = 0;
    for (int i = 0; i < SIZE; i++) {
      result |= static_cast<uint32_t>(std::popcount(rows_[i] & vector) & 1) << i;
    }
    return result;
  }

  // Gauss and Jordan. False, and `ret_inverse` untouched, when the matrix has not full rank.
  bool invert(gf2_matrix *ret_inverse) const
  {
    gf2_matrix left = *this;
    gf2_matrix inverse = identity();
    for (int column = 0; column < SIZE; column++) {
      int pivot = column;
      while (pivot < SIZE && (left.rows_[pivot] >> column & 1) == 0) {
        pivot++;
      }
      if (pivot == SIZE) {
        return false;
      }
      std::swap(left.rows_[pivot], left.rows_[column]);
      std::swap(inverse.rows_[pivot], inverse.rows_[column]);
      for (int i = 0; i < SIZE; i++) {
        if (i != column && (left.rows_[i] >> column & 1) != 0) {
          left.rows_[i] ^= left.rows_[column];
          inverse.rows_[i] ^= inverse.rows_[column];
        }
      }
    }
    *ret_inverse = inverse;
    return true;
  }

private:
  std::array<uint32_t, SIZE> rows_ = {};
};
