// The page's files, built into the program from page.html, page.css and page.js.
#pragma once

namespace orbix::station {

extern const char* const page_html;
extern const char* const page_css;
extern const char* const page_js;

}  // namespace orbix::station
