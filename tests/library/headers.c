/* The public interface as hosts use it, in C and in C++: the code samples of the headers' comments, word for word
   (Exports_test compares them). Built strictly, and without the flags of the library itself. */

#include "libplatform/libplatform.h"

#include <stdio.h>
#include <stdlib.h>

static void Use(const uint8_t* bytes, uint32_t length) {
    printf("%u bytes from 0x%02X on\n", (unsigned)length, (unsigned)bytes[0]);
}

static void Show(const _KVCIM_PROP* property) {
    printf("property %u\n", (unsigned)property->code);
}

static void Report(const KVPS_SEL_ENTRY* entry) {
    printf("event of sensor %u\n", (unsigned)entry->sensorNumber);
}

static void Handle(uint32_t action) {
    printf("action %u\n", (unsigned)action);
}

static void Host(void) {
    PXR_set_command_name("pxragt");
    PXR_trace_init();  // no daemon, no trace: go on
    if (InitLib() != 0) {
        // What could be started serves; TerminateLib is called all the same.
    }
    _KVCIM_ENUM* irqs = NULL;
    if (CreateEnum(KTX_CLS_IRQ, &irqs) == 0) {
        PXR_ExecCommand(irqs, NULL, KV_MODE_QUERY);  // all instances, or none
        for (const _KVCIM_CLASS* irq = irqs->first; irq != NULL; irq = irq->next) {
            for (const _KVCIM_PROP* p = irq->first; p != NULL; p = p->next) Show(p);
        }
        FreeEnum(irqs);
    }
    TerminateLib();
    PXR_trace_term();
}

static int FillInAnInstance(_KVCIM_ENUM* e) {
    _KVCIM_CLASS* irq = NULL;
    const int error = CreateClass(KTX_CLS_IRQ, &irq);
    if (error != 0) return error;
    SetPropertyUint32(irq, KTX_PROP_IRQ_NUMBER, 9);
    SetPropertyStr(irq, KTX_PROP_DEVICE, "acpi");
    return InsertClass(e, irq);  // e owns irq from here on
}

static const char* NameOfClass(unsigned id) {
    #define NAME(name, number) #name,
    static const char* const kClassNames[] = {KTX_CLASS_LIST(NAME)};
    #undef NAME
    return kClassNames[id];
}

static void ReadFru(void) {
    _KvFruData field;
    if (KvDf_GetFruInventoryData(KV_FRU_PRODUCT_AREA | 4, &field) == 0 && field.length > 0) {
        Use(field.data, field.length);  // the serial number, as it is stored
    }
}

static void ReadEvents(void) {
    unsigned long count = 0;
    KVPS_SEL_ENTRY* entries = NULL;
    if (KvPsGetSelAllEntries(&count, &entries) == 0) {  // every ten seconds or so
        for (unsigned long i = 0; i < count; ++i) Report(&entries[i]);
        KvPsFreeDataArray(entries);
    }
}

static void ReadSensors(void) {
    unsigned long count = 0;
    SDR* records = NULL;
    if (KvPsGetAllSdrData(&count, &records) != 0) return;
    for (unsigned long i = 0; i < count; ++i) {
        KVPS_SENSOR_DATA data;  // for many at once: KvPsGetSensorDataList
        if (KvPsGetSensorData(records[i].owner, records[i].lun, records[i].number, &data) == 0) {
            printf("%s: %u\n", records[i].name, (unsigned)data.reading);
        }
    }
    free(records);
}

static void ReadMemoryDevices(void) {
    unsigned long count = 0;
    KVPS_SMBIOS_TPHEAD** devices = NULL;
    if (KvPsGetTypeData(17, &count, &devices) != 0) return;
    for (unsigned long i = 0; i < count; ++i) {
        char locator[64] = "";
        KvPsGetSmbiosString(devices[i], 0x10, sizeof(locator), locator);
    }
    KvPsFreeTypeData(devices);
}

static void CountMemoryDevices(void) {
    uint32_t count = 0;
    smbios_gettable_block block;
    block.mode = SMBIOS_TABLE_BY_INDEX;
    block.type = 17;  // memory devices
    block.index = 0;  // 0: how many are there?
    block.buffer = &count;
    block.size = sizeof(count);
    if (smbios_ioctl(SMBIOS_GETTABLE, &block) == 0 && block.status == SMBIOS_STATUS_OK) {
        printf("%u memory devices\n", (unsigned)count);
    }
}

static void AskTheBmcByItsRegisters(void) {
    const uint8_t request[] = {0x18, 0x01};  // NetFn App, LUN 0; Get Device ID
    uint8_t response[64];
    KvIpmiExecBlock block;
    block.targetAddress = 0x20;
    block.request = request;
    block.requestLength = sizeof request;
    block.response = response;
    block.responseLength = sizeof response;
    if (ipmi_ioctl(IPMI_EXECCMD, (unsigned long)&block) == 0 && block.status == 0) {
        Use(response, block.responseLength);
    }
}

static void* Poller(void* argument) {
    PXR_thread* self = (PXR_thread*)argument;
    pthread_mutex_lock(&self->lock);
    self->state = PXR_THREAD_RUNNING;  // or PXR_THREAD_FAILED, and return
    pthread_cond_signal(&self->wake);
    while (PXR_thread_sleep(self) >= 0) {  // releases the lock while it waits
        const uint32_t action = PXR_thread_get_action(self);
        pthread_mutex_unlock(&self->lock);  // never work under the lock: stop and wake-up need it
        Handle(action);
        pthread_mutex_lock(&self->lock);
    }
    pthread_mutex_unlock(&self->lock);
    return NULL;
}

static PXR_thread poller;

static void Work(void) {
    PXR_thread_create(&poller, Poller);
    PXR_thread_wakeup(&poller, 7);
    PXR_thread_destroy(&poller);
}

static void Trace(char* argv[], int count) {
    PXR_set_command_name(argv[0]);
    PXR_trace_init();  // a host may go on when this fails, and try again later
    PXR_trace(PXR_TRACE_MASK_LIBRARY, PXR_TRACE_LEVEL_EVENT, "%d sensors found\n", count);
    PXR_trace_term();
}

static void ReadFans(void) {
#ifdef __cplusplus
    unsigned long count = 0;
    KVDF_FAN* fans = nullptr;
    if (KvDfGetBodyFan(&count, &fans) != 0) return;
    for (unsigned long i = 0; i < count; ++i) {
        printf("%u: %s\n", (unsigned)fans[i].number, (const char*)fans[i].stateText);
    }
    KvDfFreeDataArray(fans);
#endif
}

static int32_t Configure(void) {
#ifdef __cplusplus
    static const PXR_config_file<2> kTrace = {
        "/etc/opt/velmora/lantrel/trace.cfg", "[ServerAgent%s_TRACE]", "0330", "Trace Configuration File",
        {{0x1F42, "TraceLevel", 1, -1, 0, 0, 100, PXR_CFG_NUMBER, {10}, 0, {}},
         {}}};

    PXR_config_data values[] = {PXR_CFG_SLOT(0x1F42), PXR_CFG_SLOT(0)};
    PXR_init_cfgdata(kTrace.Table(), values);  // the defaults
    PXR_read_cfgfile(kTrace.Table(), values);  // what the file says; a failure leaves the defaults
    const int32_t level = values[0].value.number;
    PXR_clear_cfgdata(kTrace.Table(), values);
    return level;
#else
    const PXR_config_data values[] = {PXR_CFG_SLOT(0x1F42), PXR_CFG_SLOT(0)};
    return (int32_t)values[0].id;
#endif
}

// Without argument: what needs no machine.
int main(int argc, char* argv[]) {
    _KVCIM_ENUM* e = NULL;
    int failed = CreateEnum(KTX_CLS_IRQ, &e) != 0 || FillInAnInstance(e) != 0;
    failed = failed || e->classCount != 1 || NameOfClass(KTX_CLS_IRQ)[0] != 'K';
    FreeEnum(e);
    KvPsFreeTypeData(NULL);
    KvPsFreeSystemInformation(NULL);
    Work();
    if (argc > 1) {
        Trace(argv, Configure());
        Host();
        ReadFru();
        ReadEvents();
        ReadSensors();
        ReadFans();
        ReadMemoryDevices();
        CountMemoryDevices();
        AskTheBmcByItsRegisters();
    }
    return failed;
}
