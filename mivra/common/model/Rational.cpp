#include "mivra/common/model/Rational.h"

#include <cmath>
#include <cstdint>

namespace Mivra::Common {

Rational::Rational(int numerator, int denominator) : num(numerator), den(denominator) {
    if (numerator > 0 && denominator > 0) {
        const int divisor = gcd(numerator, denominator);
        num /= divisor;
        den /= divisor;
    }
}

Rational::Rational(std::int64_t numerator, std::int64_t denominator) {
    if (numerator > 0 && denominator > 0) {
        const std::int64_t divisor = gcd(numerator, denominator);
        store(numerator / divisor, denominator / divisor);
    } else {
        store(numerator, denominator);
    }
}

Rational::Rational(double value) {
    fromDouble(value);
}

void Rational::store(std::int64_t numerator, std::int64_t denominator) {
    const bool fits = numerator == static_cast<std::int32_t>(numerator) &&
                      denominator == static_cast<std::int32_t>(denominator);
    num = fits ? static_cast<std::int32_t>(numerator) : 0;
    den = fits ? static_cast<std::int32_t>(denominator) : 0;
}

void Rational::fromDouble(double value) {
    if (!(value >= 1e-8) || value > INT32_MAX) {
        return;
    }
    const double whole = std::round(value);
    if (std::fabs(value - whole) < 0.01) {
        store(static_cast<std::int64_t>(whole), 1);
        return;
    }
    const double ntsc = std::round(value * 1001);
    if (std::fabs(value * 1001 - ntsc) < 0.1) {
        store(static_cast<std::int64_t>(ntsc), 1001);
        return;
    }
    std::int64_t scale = 1;
    double scaled = 0;
    do {
        scale *= 10;
        scaled = static_cast<double>(scale) * value;
    } while (scale < 10000000 && std::fabs(scaled - std::round(scaled)) >= static_cast<double>(scale) * 1e-7);
    *this = Rational(static_cast<std::int64_t>(std::round(scaled)), scale);
}

double Rational::ToDouble() const {
    return den == 0 ? 0.0 : static_cast<double>(num) / den;
}

bool Rational::EqualTo(const Rational& other, double epsilon) const {
    return std::fabs(ToDouble() - other.ToDouble()) <= epsilon;
}

Rational Rational::operator*(const Rational& other) const {
    return Rational(std::int64_t{num} * other.num, std::int64_t{den} * other.den);
}

Rational Rational::operator/(const Rational& other) const {
    return Rational(std::int64_t{num} * other.den, std::int64_t{den} * other.num);
}

Rational Rational::operator!() const {
    return Rational(den, num);
}

int Rational::gcd(int a, int b) {
    while (b != 0) {
        const int rest = a % b;
        a = b;
        b = rest;
    }
    return a;
}

std::int64_t Rational::gcd(std::int64_t a, std::int64_t b) {
    while (b != 0) {
        const std::int64_t rest = a % b;
        a = b;
        b = rest;
    }
    return a;
}

}  // namespace Mivra::Common
