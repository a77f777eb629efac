# SPDX-License-Identifier: MIT
# cmake -DHEADERS="a.h;b.h" -P CheckHeaders.cmake: no public header names anything of libgpiod.
if(NOT HEADERS)
  message(FATAL_ERROR "no headers to check")
endif()
foreach(header IN LISTS HEADERS)
  file(READ ${header} text)
  if(text MATCHES "gpiod")
    message(SEND_ERROR "${header} mentions libgpiod")
  endif()
endforeach()
