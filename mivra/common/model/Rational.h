#pragma once

#include <cstdint>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

/// A fraction of two signed 32-bit integers: time bases, frame rates, pixel aspect ratios. 0/0 is unknown.
/// Fractions whose parts are both positive are kept reduced on construction; others stay as they are given.
/// What does not fit 32 bits becomes 0/0. A plain value.
class MIVRA_API Rational {
public:
    Rational() = default;
    Rational(int n) : num(n), den(1) {}
    Rational(int numerator, int denominator);
    Rational(std::int64_t numerator, std::int64_t denominator);
    /// The nearest sensible fraction: a whole number, one over 1001, else a decimal fraction of at most seven
    /// digits. Below 1e-8 (negatives too) and not-a-number give 0/0.
    Rational(double value);

    Rational& operator=(int n) { return *this = Rational(n); }
    Rational& operator=(double value) { return *this = Rational(value); }

    std::int32_t& Num() { return num; }
    std::int32_t Num() const { return num; }
    std::int32_t& Den() { return den; }
    std::int32_t Den() const { return den; }

    /// 0.0 when the denominator is 0.
    double ToDouble() const;
    /// Either part is 0.
    bool IsNull() const { return num == 0 || den == 0; }

    /// Member by member: 2/4, where it was not reduced, differs from 1/2.
    bool operator==(const Rational& other) const { return num == other.num && den == other.den; }
    bool operator!=(const Rational& other) const { return !(*this == other); }
    /// By value, at most epsilon apart.
    bool EqualTo(const Rational& other, double epsilon) const;
    bool operator<(const Rational& other) const { return ToDouble() < other.ToDouble(); }
    bool operator>(const Rational& other) const { return ToDouble() > other.ToDouble(); }

    Rational operator*(const Rational& other) const;
    Rational operator/(const Rational& other) const;
    /// The reciprocal.
    Rational operator!() const;

private:
    static int gcd(int a, int b);
    static std::int64_t gcd(std::int64_t a, std::int64_t b);
    void fromDouble(double value);
    void store(std::int64_t numerator, std::int64_t denominator);

    std::int32_t num = 0;
    std::int32_t den = 0;
};

}  // namespace Mivra::Common
