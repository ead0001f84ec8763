# SPDX-License-Identifier: Apache-2.0
# Fails unless README contains the text of EXAMPLE, so that what is shown is what is compiled.
file(READ "${README}" readme)
file(READ "${EXAMPLE}" example)
string(REGEX REPLACE "^// SPDX[^\n]*\n" "" example "${example}")
string(FIND "${readme}" "${example}" position)
if(position EQUAL -1)
  message(FATAL_ERROR "${README} does not show ${EXAMPLE} as it is")
endif()
