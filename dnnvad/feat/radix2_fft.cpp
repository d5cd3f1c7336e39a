// The module's own FFTs: complex with cached tables, and real on a header vector.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <utility>

#include "dnnvad/aligned.h"
#include "dnnvad/feat/signal_process.h"

namespace tz_dnnvad {

namespace {

constexpr double kPi = 3.141592653589793;

bool is_power_of_two(int n) { return n > 0 && (n & (n - 1)) == 0; }

// Zeroed storage of the C library's, or null.
template <typename T>
std::unique_ptr<T[], FreeDeleter> make_table(int count) {
    return std::unique_ptr<T[], FreeDeleter>(
        static_cast<T*>(calloc(static_cast<std::size_t>(count), sizeof(T))));
}

void permute(int m, const int* bitrev, float* x, float* y) {
    for (int i = 0; i < m; ++i) {
        const int j = bitrev[i];
        if (j > i) {
            std::swap(x[i], x[j]);
            std::swap(y[i], y[j]);
        }
    }
}

void butterflies(int m, bool inverse, const float* sintbl, float* x, float* y) {
    for (int k = 1; k < m; k *= 2) {
        const int h = 2 * k;
        const int d = m / h;
        for (int j = 0; j < k; ++j) {
            // A table of two points has no room for the cosine of 0.
            const double c = m < 4 ? 1.0 : static_cast<double>(sintbl[j * d + m / 4]);
            const double sine = static_cast<double>(sintbl[j * d]);
            const double s = inverse ? -sine : sine;
            for (int i = j; i < m; i += h) {
                const int ik = i + k;
                const double xk = static_cast<double>(x[ik]);
                const double yk = static_cast<double>(y[ik]);
                const double xi = static_cast<double>(x[i]);
                const double yi = static_cast<double>(y[i]);
                const double dx = s * yk + c * xk;
                const double dy = c * yk - s * xk;
                x[ik] = static_cast<float>(xi - dx);
                x[i] = static_cast<float>(xi + dx);
                y[ik] = static_cast<float>(yi - dy);
                y[i] = static_cast<float>(yi + dy);
            }
        }
    }
}

// A twiddle factor that advances by a fixed angle: w += w * (e^(i angle) - 1), accurate for small
// angles because the real part of the step is -2 sin^2(angle / 2).
class Twiddle {
public:
    Twiddle(double half_angle_sine, double angle_sine)
        : step_re_(-2.0 * half_angle_sine * half_angle_sine), step_im_(angle_sine) {}

    double re() const { return re_; }
    double im() const { return im_; }

    void advance() {
        const double re = re_;
        re_ = re * step_re_ - im_ * step_im_ + re;
        im_ = im_ * step_re_ + re * step_im_ + im_;
    }

private:
    double step_re_;
    double step_im_;
    double re_ = 1.0;
    double im_ = 0.0;
};

// Swaps the pairs (s[i], s[i + 1]), i odd, into bit-reversed order.
void permute_pairs(float* s, int n) {
    int j = 1;
    for (int i = 1; i < n; i += 2) {
        if (j > i) {
            std::swap(s[j], s[i]);
            std::swap(s[j + 1], s[i + 1]);
        }
        int half = n / 2;
        while (half >= 2 && j > half) {
            j -= half;
            half /= 2;
        }
        j += half;
    }
}

// Complex transform, kernel e^(+i ..), of the n / 2 pairs in bit-reversed order.
void transform_pairs(float* s, int n) {
    for (int mmax = 2; mmax < n; mmax *= 2) {
        const double theta = 2.0 * kPi / mmax;
        // At half a turn: the sine of the double nearest to pi.
        Twiddle w = mmax == 2 ? Twiddle(1.0, 1.2246467991473532e-16)
                              : Twiddle(sin(0.5 * theta), sin(theta));
        for (int m = 1; m < mmax; m += 2) {
            for (int i = m; i < n; i += 2 * mmax) {
                const int j = i + mmax;
                const double xr = static_cast<double>(s[j]);
                const double xi = static_cast<double>(s[j + 1]);
                const double tr = w.re() * xr - w.im() * xi;
                const double ti = w.re() * xi + w.im() * xr;
                s[j] = static_cast<float>(static_cast<double>(s[i]) - tr);
                s[j + 1] = static_cast<float>(static_cast<double>(s[i + 1]) - ti);
                s[i] = static_cast<float>(static_cast<double>(s[i]) + tr);
                s[i + 1] = static_cast<float>(static_cast<double>(s[i + 1]) + ti);
            }
            w.advance();
        }
    }
}

// Separates the transforms of the even and the odd samples, which the pairs' transform holds as
// its symmetric (h1) and antisymmetric (h2) parts, and joins them: bin i from the low end is
// h1 + w h2, its mirror from the high end the conjugate of h1 - w h2.
void split_real(float* s, int n) {
    const int pairs = n / 2;
    const double theta = kPi / pairs;
    Twiddle w(sin(0.5 * theta), sin(theta));
    w.advance();
    for (int i = 2; i <= pairs / 2; ++i) {
        const int i1 = 2 * i - 1;
        const int i2 = i1 + 1;
        const int i3 = n + 3 - i2;
        const int i4 = i3 + 1;
        const double low_re = static_cast<double>(s[i1]);
        const double low_im = static_cast<double>(s[i2]);
        const double high_re = static_cast<double>(s[i3]);
        const double high_im = static_cast<double>(s[i4]);
        const double h1r = 0.5 * (low_re + high_re);
        const double h1i = 0.5 * (low_im - high_im);
        const double h2r = 0.5 * (low_im + high_im);
        const double h2i = 0.5 * (high_re - low_re);
        s[i1] = static_cast<float>(h1r + w.re() * h2r - w.im() * h2i);
        s[i2] = static_cast<float>(h1i + w.re() * h2i + w.im() * h2r);
        s[i3] = static_cast<float>(h1r - w.re() * h2r + w.im() * h2i);
        s[i4] = static_cast<float>(-h1i + w.re() * h2i + w.im() * h2r);
        w.advance();
    }
}

}  // namespace

void make_sintbl(int n, float* sintbl) {
    if (n < 1) {
        return;
    }
    const int half = n / 2;
    const int quarter = n / 4;
    const int eighth = n / 8;
    const float t = static_cast<float>(sin(kPi / n));
    float dc = 2.0F * t * t;
    float ds = sqrtf(dc * (2.0F - dc));
    const float t2 = 2.0F * dc;
    sintbl[quarter] = 1.0F;
    sintbl[0] = 0.0F;
    float c = 1.0F;
    float s = 0.0F;
    for (int i = 1; i < eighth; ++i) {
        s += ds;
        c -= dc;
        ds -= t2 * s;
        dc += t2 * c;
        sintbl[i] = s;
        sintbl[quarter - i] = c;
    }
    if (eighth != 0) {
        sintbl[eighth] = 0.70710677F;  // sqrt(1/2)
    }
    for (int i = 0; i < quarter; ++i) {
        sintbl[half - i] = sintbl[i];
    }
    for (int i = 0; i < half + quarter; ++i) {
        sintbl[half + i] = -sintbl[i];
    }
}

void make_bitrev(int n, int* bitrev) {
    if (n < 1) {
        return;
    }
    bitrev[0] = 0;
    int j = 0;
    for (int i = 1; i < n; ++i) {
        int k = n / 2;
        while (k > 0 && k <= j) {
            j -= k;
            k /= 2;
        }
        j += k;
        bitrev[i] = j;
    }
}

void fft(int n, float* x, float* y) {
    thread_local int last_n = 0;
    thread_local std::unique_ptr<float[], FreeDeleter> sintbl;
    thread_local std::unique_ptr<int[], FreeDeleter> bitrev;

    const bool inverse = n < 0;
    if (n == 0) {
        last_n = 0;
        sintbl.reset();
        bitrev.reset();
        return;
    }
    // The bound keeps the table's length an int.
    if (n < -(1 << 30) || !is_power_of_two(std::abs(n))) {
        return;
    }
    const int m = std::abs(n);
    if (m != last_n) {
        sintbl = make_table<float>(m + m / 4);
        bitrev = make_table<int>(m);
        assert(sintbl && bitrev);
        last_n = m;
        make_sintbl(m, sintbl.get());
        make_bitrev(m, bitrev.get());
    }
    permute(m, bitrev.get(), x, y);
    butterflies(m, inverse, sintbl.get(), x, y);
    if (inverse) {
        for (int i = 0; i < m; ++i) {
            x[i] /= static_cast<float>(m);
            y[i] /= static_cast<float>(m);
        }
    }
}

void realft(float* s) {
    const bool counts = s[0] >= 2.0F && s[0] < 1073741824.0F;
    const int n = counts ? static_cast<int>(s[0]) : 0;
    if (!is_power_of_two(n)) {
        return;
    }
    permute_pairs(s, n);
    transform_pairs(s, n);
    split_real(s, n);
    s[1] = s[1] + s[2];
    s[2] = 0.0F;
}

}  // namespace tz_dnnvad
