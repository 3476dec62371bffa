#include "kapsel/chapters.h"

namespace Kapsel {

ChapDisp::ChapDisp() { language_->init("eng"); }

ChapAtom::ChapAtom() {
  flagEnabled_->init(1);
  // Readers require a start time, and 0 is its most common value.
  timeStart_.alwaysSave();
}

SimpleTag::SimpleTag() {
  language_->init("und");
  default_->init(1);
  defaultBogus_->init(1);
}

// Readers expect every Tag to say what it targets, even when that is the whole segment.
Tag::Tag() { targets_.alwaysSave(); }

}  // namespace Kapsel
