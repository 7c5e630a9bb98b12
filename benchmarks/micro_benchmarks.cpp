/*
 * What the service's own work on a message, a command or a document costs, without any waiting.
 */
#include <Poco/Dynamic/Var.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <benchmark/benchmark.h>

#include <string>

#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_BaseObj.h"
#include "media_server/IPCService/ProtocolProcess/Custom_SubSystem/Custom_DownloadTaskParam.h"
#include "media_server/IPCService/Public/JsonText.h"
#include "media_server/IPCService/Public/MessageExchange.h"
#include "media_server/IPCService/Public/MsgData.h"

namespace {

using Poco::JSON::Array;
using Poco::JSON::Object;

constexpr int PICTURES = 30;  // of a page
constexpr int ROUNDS = 2000;  // a fixed number, so that instructions can be divided by it

const std::string COMMAND =
    R"({"taskName":"whiteListDown","taskInfo":{"cameraCode":"C1","taskID":"T1","totalNum":75,"sqbh":"S1",)"
    R"("datatime":"D1","securityCode":"K1","taskURL":"https://127.0.0.1:8443/platform/whiteList",)"
    R"("taskResultURL":"https://127.0.0.1:8443/platform/whiteListResult"}})";

IPCService::MetaDataGW::DownloadPictureProcParam samplePage()
{
    IPCService::MetaDataGW::DownloadPictureProcParam page;
    page.securityCode = "K1";
    page.cameraCode = "C1";
    page.taskID = "T1";
    page.offset = PICTURES;
    page.datatime = "D1";
    return page;
}

void messageBuilding(benchmark::State& state)
{
    for (auto _ : state) {
        MSG_DATA message{};
        IPCService::setFaceMsgHeader(message, IPCService::ITGT_PATH, IPCService::EXCHANGE_PATH, 1,
                                     CMD_FACE_IMPORT_FILE);
        IPCService::MsgField::Count::set(message, 3);
        IPCService::MsgField::ImportFileFlag::set(message, 0);
        IPCService::MsgField::ImportFileDirectory::set(message, "/tmp/mmcblk0/face_basic/faceLib/");
        IPCService::MsgField::ImportFileName::set(message, "white30");
        benchmark::DoNotOptimize(message);
    }
}
BENCHMARK(messageBuilding)->Iterations(ROUNDS);

void commandDecoding(benchmark::State& state)
{
    for (auto _ : state) {
        const auto command = IPCService::JsonText::parse(COMMAND).extract<Object::Ptr>();
        benchmark::DoNotOptimize(command->get("taskName"));
        benchmark::DoNotOptimize(command->get("taskInfo").extract<Object::Ptr>());
    }
}
BENCHMARK(commandDecoding)->Iterations(ROUNDS);

void requestDocument(benchmark::State& state)
{
    const auto page = samplePage();
    for (auto _ : state) {
        std::string text;
        IPCService::MetaDataGW::CustomJSONDownloadPictureObj(page).Serialize(text);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(requestDocument)->Iterations(ROUNDS);

void reportDocument(benchmark::State& state)
{
    Array::Ptr pictures = new Array;
    for (int i = 0; i < PICTURES; ++i) {
        Object picture;
        picture.set("credentialNumber", "11010119600101" + std::to_string(1000 + i));
        picture.set("importStatus", Poco::Int64(0));
        pictures->add(picture);
    }
    const auto page = samplePage();
    for (auto _ : state) {
        Object::Ptr document = new Object;
        document->set("ImportInfo", pictures);
        document->set("datatime", "2024-05-17 08:30:00");
        document->set("cameraCode", page.cameraCode);
        document->set("taskID", page.taskID);
        document->set("securityCode", page.securityCode);
        document->set("startIndex", page.startIndex);
        document->set("offset", page.offset);
        benchmark::DoNotOptimize(IPCService::JsonText::compact(document));
    }
}
BENCHMARK(reportDocument)->Iterations(ROUNDS);

}  // namespace
