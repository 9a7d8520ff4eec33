#pragma once

#include <string>

#include <pybind11/pybind11.h>

#include <osg/Quaternion.h>
#include <osg/Vec3f.h>

namespace KeloPython {

namespace py = pybind11;

void bindParts(py::module_& module);
void bindWorld(py::module_& module);

// Vectors from any sequence of finite numbers of the right length, and back as tuples.
osg::Vec3f toVec3(py::handle value, const char* what);
osg::Quaternion toQuaternion(py::handle value, const char* what);
py::tuple toTuple(const osg::Vec3f& value);
py::tuple toTuple(const osg::Quaternion& value);
// A finite float, or ValueError naming what.
float finite(double value, const char* what);

}  // namespace KeloPython
