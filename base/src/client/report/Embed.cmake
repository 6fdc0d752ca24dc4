# Writes a source that holds the style sheet and the script of the report, and their hashes.
#   cmake -D FOLDER=... -D OUTPUT=... -P Embed.cmake
set(source "// Made from page.css and page.js.\n#include \"client/report/ReportAssets.h\"\n\n")
foreach(asset STYLE:page.css SCRIPT:page.js)
  string(REPLACE ":" ";" asset ${asset})
  list(POP_FRONT asset name file)
  file(READ ${FOLDER}/${file} text)
  file(SHA256 ${FOLDER}/${file} hash)
  string(APPEND source "const std::string_view ReportAssets::${name} = R\"~~~(${text})~~~\";\n"
    "const std::string_view ReportAssets::${name}_HASH = \"${hash}\";\n")
endforeach()
file(WRITE ${OUTPUT} "${source}")
