include(${CMAKE_CURRENT_LIST_DIR}/row_contestants.cmake)
set(contestants row_contestants)
