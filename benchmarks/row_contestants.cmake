# The contestants of the row benchmarks: their code is generated from benchmarks/row/row.* and
# compiled once.

if(TARGET row_contestants)
  return()
endif()

find_package(Protobuf REQUIRED)
pkg_check_modules(CAPNP REQUIRED IMPORTED_TARGET capnp)
find_program(CAPNPC capnp REQUIRED)
find_program(FLATC flatc REQUIRED)
find_path(FLATBUFFERS_INCLUDE_DIR flatbuffers/flatbuffers.h REQUIRED)
find_path(RAPIDJSON_INCLUDE_DIR rapidjson/writer.h REQUIRED)

set(schemas ${CMAKE_CURRENT_SOURCE_DIR}/row)
set(generated ${CMAKE_CURRENT_BINARY_DIR}/row)
file(MAKE_DIRECTORY ${generated})
add_custom_command(OUTPUT ${generated}/row_generated.h
  COMMAND ${FLATC} --cpp --gen-mutable -o ${generated} ${schemas}/row.fbs
  DEPENDS ${schemas}/row.fbs)
add_custom_command(OUTPUT ${generated}/row.pb.cc ${generated}/row.pb.h
  COMMAND protobuf::protoc --cpp_out=${generated} -I ${schemas} row.proto
  DEPENDS ${schemas}/row.proto)
add_custom_command(OUTPUT ${generated}/row.capnp.c++ ${generated}/row.capnp.h
  COMMAND ${CAPNPC} compile -oc++:${generated} --src-prefix=${schemas} ${schemas}/row.capnp
  DEPENDS ${schemas}/row.capnp)

add_library(row_contestants STATIC ${generated}/row_generated.h ${generated}/row.pb.cc
  ${generated}/row.capnp.c++)
target_include_directories(row_contestants SYSTEM PUBLIC ${generated} ${FLATBUFFERS_INCLUDE_DIR}
  ${RAPIDJSON_INCLUDE_DIR})
target_compile_features(row_contestants PUBLIC cxx_std_20)
target_link_libraries(row_contestants PUBLIC demo_data protobuf::libprotobuf
  PkgConfig::CAPNP)
