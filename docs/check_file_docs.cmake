# Every public header must carry a Doxygen file comment (/** @file): without
# one, Doxygen leaves the header's names out of the reference without a warning.
file(GLOB headers ${HEADERS}/*.h)
set(missing "")
foreach(h IN LISTS headers)
  file(READ ${h} text)
  if(NOT text MATCHES "/\\*\\* @file")
    list(APPEND missing ${h})
  endif()
endforeach()
if(missing)
  list(JOIN missing "\n  " missing)
  message(FATAL_ERROR "public headers without a /** @file comment:\n  ${missing}")
endif()
