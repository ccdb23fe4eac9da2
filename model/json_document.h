// A parsed or packed JSON document and its owner. Values taken out of it are borrowed.

#ifndef MODEL_JSON_DOCUMENT_H
#define MODEL_JSON_DOCUMENT_H

#include <boost/shared_ptr.hpp>
#include <jansson.h>

using json_document = boost::shared_ptr<json_t>;

// Takes over the caller's reference; the last owner drops it. Null is allowed.
inline json_document own_json(json_t* value) {
    return {value, json_decref};
}

#endif
