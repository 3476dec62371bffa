#pragma once
// Kapsel: EBML/Matroska element library.

#include "kapsel/ebml.h"
#include "kapsel/element.h"
#include "kapsel/file.h"
#include "kapsel/hodgepodge.h"
#include "kapsel/payload.h"
#include "kapsel/shared_ptr.h"
#include "kapsel/storage.h"
#include "kapsel/block.h"
#include "kapsel/chapters.h"
#include "kapsel/cluster.h"
#include "kapsel/crawlers.h"
#include "kapsel/document.h"
#include "kapsel/edit.h"
#include "kapsel/segment.h"
#include "kapsel/tracks.h"
