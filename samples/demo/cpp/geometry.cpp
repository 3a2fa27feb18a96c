#include <cmath>
#include <vector>

#include "geometry.hpp"

namespace geometry {

template <typename T>
static T
clamped(T value, T low, T high) {
  return value < low ? low : (high < value ? high : value);
}

void Polygon::add(Point p) { points_.push_back(p); }

double Polygon::perimeter() const {
  double sum = 0;
  for (std::size_t i = 0; i < points_.size(); ++i) {
    const Point& a = points_[i];
    const Point& b = points_[(i + 1) % points_.size()];
    sum += std::hypot(a.x - b.x, a.y - b.y);
  }
  return sum;
}

}  // namespace geometry
