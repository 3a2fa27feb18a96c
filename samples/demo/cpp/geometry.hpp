#pragma once

namespace geometry {

struct Point {
  double x = 0;
  double y = 0;
};

class Polygon {
 public:
  void add(Point p);
  double perimeter() const;

 private:
  std::vector<Point> points_;
};

}  // namespace geometry
