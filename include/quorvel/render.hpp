#pragma once
// Everything public of the render backend in one include.

#include "quorvel/backend/lru_map.hpp"
#include "quorvel/backend/software_render_backend.hpp"
#include "quorvel/buffers/buffer2d.hpp"
#include "quorvel/buffers/pixel_types.hpp"
#include "quorvel/context/render_context.hpp"
#include "quorvel/errors/exception.hpp"
#include "quorvel/filters/filter.hpp"
#include "quorvel/filters/filter_parameters.hpp"
#include "quorvel/filters/software_filter.hpp"
#include "quorvel/host/data_envelopes.hpp"
#include "quorvel/host/render_backend.hpp"
#include "quorvel/jobs/parallel_work_queue.hpp"
#include "quorvel/kernels/display/mask.hpp"
#include "quorvel/kernels/reconstruction/blit.hpp"
