#include "web/routes.h"

bool register_routes() {
  return true;
}
