#pragma once

namespace osg {

// Three floats, the scene graph's position type. Only what the sound library needs.
class Vec3f {
public:
    constexpr Vec3f() = default;
    constexpr Vec3f(float x, float y, float z) : _v{x, y, z} {}

    constexpr float x() const { return _v[0]; }
    constexpr float y() const { return _v[1]; }
    constexpr float z() const { return _v[2]; }

    constexpr float& operator[](int i) { return _v[i]; }
    constexpr float operator[](int i) const { return _v[i]; }

    const float* ptr() const { return _v; }

    constexpr bool operator==(const Vec3f& o) const {
        return _v[0] == o._v[0] && _v[1] == o._v[1] && _v[2] == o._v[2];
    }
    // Component-wise comparison within tolerance; a NaN on either side is never equal.
    constexpr bool equals(const Vec3f& o, float tolerance) const {
        for (int i = 0; i < 3; ++i)
            if (!(o._v[i] - _v[i] <= tolerance && _v[i] - o._v[i] <= tolerance))
                return false;
        return true;
    }

    constexpr bool operator!=(const Vec3f& o) const { return !(*this == o); }

private:
    float _v[3] = {0.0f, 0.0f, 0.0f};
};

}  // namespace osg
