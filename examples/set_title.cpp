// Changes a file's title in place, without rewriting its clusters.
//   set_title FILE TITLE

#include <cstdio>
#include <string>

#include "kapsel/kapsel.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: set_title FILE TITLE\n");
    return 2;
  }
  Kapsel::InPlaceEditor editor;
  Kapsel::EditRequest request;
  request.title = argv[2];
  std::string error;
  // Nothing is written unless every change is known to fit.
  if (!editor.open(argv[1], error) || !editor.plan(request, error) || !editor.execute(error)) {
    std::fprintf(stderr, "set_title: %s\n", error.c_str());
    return 1;
  }
  for (const std::string& action : editor.actions()) std::printf("%s\n", action.c_str());
  return 0;
}
