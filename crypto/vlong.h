// Arbitrary-precision unsigned magnitudes with a sign, for the host-side RSA
// of Idprotect secure messaging: vlong with Montgomery exponentiation.
// Numbers are arrays of 32-bit units, least significant first.
#pragma once

#include <vector>

// The growing array of units. The top unit in use is never 0.
class flex_unit {
public:
    unsigned* units;
    unsigned capacity;
    unsigned used;

    flex_unit();
    ~flex_unit();  // wipes every allocated unit
    flex_unit(const flex_unit&) = delete;
    flex_unit& operator=(const flex_unit&) = delete;

    unsigned get(unsigned i) const;  // 0 beyond used
    void set(unsigned i, unsigned x);
    void reserve(unsigned count);
    void clear();
    // this = x * y mod 2^keep. this may be x or y.
    void fast_mul(flex_unit& x, flex_unit& y, unsigned keep);
};

class vlong_value : public flex_unit {
public:
    unsigned share = 0;  // further vlong handles on this value

    operator unsigned() const;
    bool is_zero() const;
    bool is_even() const;
    // Swaps unit i with unit used - i, i < used / 2: one place off a plain
    // reversal, kept as it is.
    void reverse();
    bool test(unsigned bit) const;
    unsigned leading_zeros() const;  // of the top unit; 32 for the value 0
    unsigned bits() const;
    int cf(const vlong_value& x) const;  // magnitudes: 1, 0 or -1
    void shl();
    void shr();
    void shr(unsigned count);
    void shl(unsigned count);
    void add(const vlong_value& x);
    void subtract(const vlong_value& x);  // requires this >= x
    void init(unsigned x);
    void copy(const vlong_value& x);
    void mul(vlong_value& x, vlong_value& y);
    // this = x / y, remainder = x % y. y = 0 gives quotient 0 and remainder
    // x, so that no caller can hang on it.
    void divide(const vlong_value& x, const vlong_value& y, vlong_value& remainder);
};

class vlong {
public:
    vlong_value* value;
    bool negative;

    vlong(unsigned x = 0);
    vlong(const vlong& x);
    // Big-endian bytes; length 0 gives 0.
    vlong(const unsigned char* bytes, unsigned length);
    ~vlong();
    vlong& operator=(const vlong& x);

    vlong& operator+=(const vlong& x);
    vlong& operator-=(const vlong& x);
    int cf(const vlong& x) const;  // signed comparison: 1, 0 or -1
    bool is_zero() const;
    bool is_neg() const;
    bool is_even() const;
    void reverse();
    unsigned size() const;  // units in use times 4
    // Binary, not text: the magnitude big-endian, right-aligned in buffer
    // after zero-filling it. Too small a buffer stays all zero.
    unsigned to_hex(unsigned char* buffer, unsigned length) const;
    // Upper-case hexadecimal, 8 digits a unit, then suffix, to stdout.
    void print(const char* suffix) const;
    operator unsigned() const;  // unit 0

    void docopy();  // a private value before any change
};

vlong operator+(const vlong& x, const vlong& y);
vlong operator-(const vlong& x, const vlong& y);
vlong operator*(const vlong& x, const vlong& y);
// Truncating: the quotient's sign is the product of the signs, the remainder
// takes the dividend's. A zero divisor gives quotient 0 and remainder x.
vlong operator/(const vlong& x, const vlong& y);
vlong operator%(const vlong& x, const vlong& y);
vlong operator>>(const vlong& x, unsigned n);
vlong operator<<(const vlong& x, unsigned n);
bool operator>=(const vlong& x, const vlong& y);
bool operator<(const vlong& x, const vlong& y);

vlong gcd(const vlong& a, const vlong& b);
// The inverse of a modulo m in 1..m-1, for a in 1..m-1 prime to m.
vlong modinv(const vlong& a, const vlong& m);
// x^e mod m. m should be odd: it runs in Montgomery form. Defined results
// elsewhere: e = 0 gives 1 mod m, m = 0 gives 0, and an even m is served by
// plain square-and-multiply.
vlong modexp(const vlong& x, const vlong& e, const vlong& m);

// Montgomery arithmetic for one odd modulus, R = 2^N the power of two above m.
class monty {
public:
    vlong R, R1;  // R and R^-1 mod m
    vlong m, n1;  // n1 = R - m^-1 mod R
    vlong T, k;   // scratch
    unsigned N;

    explicit monty(const vlong& M);
    void mul(vlong& x, const vlong& y);  // x = x * y * R^-1 mod m
    vlong exp(const vlong& x, const vlong& e);

private:
    // The same arithmetic on 64-bit words, which the exponentiation loop
    // stays in; the results are those of mul on vlong values.
    void mulWords(unsigned long long* out, const unsigned long long* a,
                  const unsigned long long* b);
    // Montgomery product with R' = 2^(64 limbs_) and word-by-word reduction,
    // for exp alone: its final result does not depend on the choice of R.
    void mulReduce(unsigned long long* out, const unsigned long long* a,
                   const unsigned long long* b);
    // Y (limbs_ + 1 words, below 2m) less m when it is at least m.
    void subtractOnce(const unsigned long long* Y, unsigned long long* out) const;
    unsigned long long m0inv_ = 0;  // -m^-1 mod 2^64
    bool fast_;                     // odd m above 1: the word path is usable
    unsigned limbs_;                // 64-bit words of a value below R
    std::vector<unsigned long long> mw_, n1w_, work_;
};
