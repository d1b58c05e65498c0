#include "can/transaction_list.h"

#include "can/codec.h"
#include "can/module.h"
#include "core/guards.h"
#include "core/log.h"
#include "device/diag.h"
#include "tags/status_tag.h"
#include "tags/tag.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace {

constexpr const char *function_name = "can_proprietary_transaction_list_init";

int failed(int line, const char *message) {
    log_write_error(function_name, line, "%s", message);
    return -1;
}

struct placement {
    uint8_t type;
    uint8_t trigger;
    list_id list;
    list_id home;
    can_frame *can_module_pass::*request; /* buffer that the kind needs */
};

constexpr std::array<placement, 6> placements = {{
    {TRANSACTION_PRODUCE, TRIGGER_CYCLIC, PRODUCE_CYCLIC, PRODUCE_CYCLIC, nullptr},
    {TRANSACTION_REQUEST,
     TRIGGER_CYCLIC,
     REQUEST_CYCLIC,
     REQUEST_CYCLIC,
     &can_module_pass::cyclic_request},
    {TRANSACTION_PRODUCE, TRIGGER_ON_CHANGE, PRODUCE_ON_CHANGE, PRODUCE_ON_CHANGE, nullptr},
    {TRANSACTION_REQUEST,
     TRIGGER_ON_CHANGE,
     REQUEST_ON_CHANGE,
     REQUEST_ON_CHANGE,
     &can_module_pass::change_request},
    {TRANSACTION_PRODUCE, TRIGGER_BOOTUP, PRODUCE_BOOTUP, PRODUCE_IDLE, nullptr},
    {TRANSACTION_REQUEST,
     TRIGGER_BOOTUP,
     REQUEST_BOOTUP,
     REQUEST_IDLE,
     &can_module_pass::bootup_request},
}};

placement placement_of(const transaction_config *config) {
    for (const placement &rule : placements) {
        if (rule.type == config->transactionType && rule.trigger == config->triggerMode) {
            return rule;
        }
    }
    const list_id list = config->consumeToutEnable != 0 ? CONSUME_WITH_TIMEOUT : CONSUME;
    return {config->transactionType, config->triggerMode, list, list, nullptr};
}

int allocate_request(can_module *module, can_frame *can_module_pass::*request) {
    if (request == nullptr || module->*request != nullptr) {
        return 0;
    }
    module->*request = allocate_zeroed<can_frame>().release();
    return module->*request == nullptr ? failed(__LINE__, "can_data == NULL\n") : 0;
}

char *tag_name_of(const trans_list_node *node, const tag_block_config *block) {
    std::array<char, tag_name_max_bytes + 1> name{};
    (void)snprintf(name.data(),
                   name.size(),
                   "can_proprietary/%s/%s_%s",
                   node->device_name,
                   node->transaction->config->transactionName,
                   block->tagName);
    return strdup(name.data());
}

/** @return 1 the service writes, 2 other applications write, -1 unknown */
int provider_mode(const char *access) {
    if (strcmp(access, "ro") == 0) {
        return 1;
    }
    return strcmp(access, "wo") == 0 ? 2 : -1;
}

/** What a received frame needs of the block. */
void prepare_block(frame_info *frame, function_block_info *block) {
    const tag_block_config *config = block->data->config;
    const std::span<uint8_t> bytes = block_bytes(frame->data, config->startOffset, config->tagSize);
    block->start = static_cast<uint8_t>(bytes.data() - frame->data.data());
    block->length = static_cast<uint8_t>(bytes.size());
    block->decoding = codec_decoding(config, bytes.size());
    block->tag = block->data->tag->tag;
}

int build_tag(can_module *module,
              trans_list_node *node,
              frame_info *frame,
              function_block_info *block,
              tag_block_config *config,
              uint32_t now) {
    auto *data = new (std::nothrow) data_info();
    if (data == nullptr) {
        return failed(__LINE__, "data_info == NULL\n");
    }
    block->data = data;
    if (node->transaction->config->fpFunc == FAULT_PROTECTION_ZERO) {
        memset(config->fpData, '0', fp_data_max_bytes);
    }
    data->tag_size = config->tagSize;
    data->last_update.store(now, std::memory_order_relaxed);
    data->transaction = node->transaction;
    data->config = config;
    data->tag = new (std::nothrow) tag_info();
    if (data->tag == nullptr) {
        return failed(__LINE__, "tag_info == NULL\n");
    }
    *data->tag = {tag_name_of(node, config), nullptr, module, frame, data};
    if (data->tag->name == nullptr) {
        return failed(__LINE__, "tag_info == NULL\n");
    }
    const int mode = provider_mode(config->access);
    if (mode < 0) {
        return failed(__LINE__, "unknown tag access\n");
    }
    (void)can_proprietary_tag_register(data->tag, config, mode); // the port serves without it
    free(std::exchange(data->tag->name, nullptr));               // the tag service has it now
    prepare_block(frame, block);
    return 0;
}

int build_block(can_module *module,
                trans_list_node *node,
                frame_info *frame,
                function_block_info **link,
                const block_config *config,
                uint32_t now) {
    auto *block = new (std::nothrow) function_block_info();
    if (block == nullptr) {
        return failed(__LINE__, "function_block_info == NULL\n");
    }
    *link = block;
    block->kind = config->blockType;
    switch (config->blockType) {
    case BLOCK_CONSTANT:
        block->constant = config->constant;
        node->transaction->has_constants = true;
        codec_lay_constant(frame->data, config->constant);
        return 0;
    case BLOCK_TAG:
        return build_tag(module, node, frame, block, config->tag, now);
    default:
        return failed(__LINE__, "unknown function block\n");
    }
}

int build_frame(can_module *module,
                trans_list_node *node,
                frame_info **link,
                const frame_config *config,
                uint32_t now) {
    auto *frame = new (std::nothrow) frame_info();
    if (frame == nullptr) {
        return failed(__LINE__, "frame_info == NULL\n");
    }
    *link = frame;
    frame->config = config;
    function_block_info **block_link = &frame->blocks;
    for (const block_config *block = config->blocks; block != nullptr; block = block->next) {
        if (build_block(module, node, frame, block_link, block, now) != 0) {
            return -1;
        }
        block_link = &(*block_link)->next;
    }
    return 0;
}

transaction_info *build_info(const transaction_config *config, uint8_t status, uint32_t now) {
    auto *info = new (std::nothrow) transaction_info();
    if (info == nullptr) {
        return nullptr;
    }
    info->config = config;
    const bool bootup_request =
        config->transactionType == TRANSACTION_REQUEST && config->triggerMode == TRIGGER_BOOTUP;
    info->state = bootup_request ? STATE_READY : STATE_INITIAL;
    info->device_status_index = status;
    info->next_send = now + static_cast<uint32_t>(config->cyclicInterval);
    info->fp_deadline = now + config->fpTimeout;
    info->deadline = now + config->consumeTimeout;
    return info;
}

void place(can_module *module, trans_list_node *node, list_id list) {
    list_append(&list_of(module, list), node);
    if (list == CONSUME_WITH_TIMEOUT) {
        lower_deadline(module->earliest_consume_deadline, node->transaction->deadline);
    }
}

int build_transaction(can_module *module,
                      const device_config *device,
                      transaction_config *config,
                      uint8_t status,
                      uint32_t now) {
    std::unique_ptr<trans_list_node> node(new (std::nothrow) trans_list_node());
    if (node == nullptr) {
        return failed(__LINE__, "trans_list_node == NULL\n");
    }
    const placement where = placement_of(config);
    node->device_name = device->deviceName;
    node->home = &list_of(module, where.home);
    if (allocate_request(module, where.request) != 0) {
        return -1;
    }
    node->transaction = build_info(config, status, now);
    if (node->transaction == nullptr) {
        return failed(__LINE__, "transaction_info == NULL\n");
    }
    trans_list_node *placed = node.release();
    place(module, placed, where.list);
    placed->transaction->diag_slot = can_proprietary_diag_register(module->port_index,
                                                                   device->deviceName,
                                                                   config->transactionName,
                                                                   config->transactionEnable != 0);
    frame_info **link = &placed->transaction->frames;
    for (const frame_config *frame = config->frames; frame != nullptr; frame = frame->next) {
        if (build_frame(module, placed, link, frame, now) != 0) {
            return -1;
        }
        link = &(*link)->next;
    }
    return 0;
}

int build_device(can_module *module, const device_config *device, uint32_t now) {
    uint8_t status = no_device_index;
    (void)can_proprietary_create_device_status_tag(device->deviceName, &status); // logged
    for (transaction_config *transaction = device->transactions; transaction != nullptr;
         transaction = transaction->next) {
        if (transaction->transactionEnable == 0) {
            continue;
        }
        if (build_transaction(module, device, transaction, status, now) != 0) {
            return -1;
        }
    }
    return 0;
}

void free_blocks(function_block_info *block) {
    while (block != nullptr) {
        function_block_info *next = block->next;
        if (block->data != nullptr && block->data->tag != nullptr) {
            can_proprietary_tag_release(block->data->tag);
            free(block->data->tag->name);
            delete block->data->tag;
        }
        delete block->data;
        delete block;
        block = next;
    }
}

void free_node(trans_list_node *node) {
    frame_info *frame = node->transaction->frames;
    while (frame != nullptr) {
        frame_info *next = frame->next;
        free_blocks(frame->blocks);
        delete frame;
        frame = next;
    }
    delete node->transaction;
    delete node;
}

} // namespace

int can_proprietary_transaction_list_init(can_module *module, uint32_t now) {
    module->earliest_fp_deadline = no_deadline;
    module->earliest_consume_deadline = no_deadline;
    module->fp_check_wanted = true;
    for (const device_config *device = module->configuration; device != nullptr;
         device = device->next) {
        if (build_device(module, device, now) != 0) {
            return -1;
        }
    }
    return 0;
}

void can_proprietary_transaction_list_free(can_module *module) {
    for (trans_list &list : module->lists) {
        while (list.head != nullptr) {
            trans_list_node *next = list.head->next;
            free_node(list.head);
            list.head = next;
        }
        list.tail = nullptr;
    }
}
