#pragma once

namespace osg {

// Orientation stored as x, y, z, w; identity by default.
class Quaternion {
public:
    constexpr Quaternion() = default;
    constexpr Quaternion(float x, float y, float z, float w) : _v{x, y, z, w} {}

    constexpr float x() const { return _v[0]; }
    constexpr float y() const { return _v[1]; }
    constexpr float z() const { return _v[2]; }
    constexpr float w() const { return _v[3]; }

    constexpr float& operator[](int i) { return _v[i]; }
    constexpr float operator[](int i) const { return _v[i]; }

    const float* ptr() const { return _v; }

    constexpr bool operator==(const Quaternion& o) const {
        return _v[0] == o._v[0] && _v[1] == o._v[1] && _v[2] == o._v[2] && _v[3] == o._v[3];
    }
    // Component-wise comparison within tolerance; a NaN on either side is never equal.
    constexpr bool equals(const Quaternion& o, float tolerance) const {
        for (int i = 0; i < 4; ++i)
            if (!(o._v[i] - _v[i] <= tolerance && _v[i] - o._v[i] <= tolerance))
                return false;
        return true;
    }

    constexpr bool operator!=(const Quaternion& o) const { return !(*this == o); }

private:
    float _v[4] = {0.0f, 0.0f, 0.0f, 1.0f};
};

}  // namespace osg
