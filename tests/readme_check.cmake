# The README shows the minimal host as it is compiled.
file(READ "${README}" readme)
file(READ "${SOURCE}" source)
string(FIND "${readme}" "```cpp\n${source}```" position)
if(position EQUAL -1)
  message(FATAL_ERROR "${README} does not show ${SOURCE} as it stands")
endif()
