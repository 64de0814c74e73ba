// The .NET binding against the real library and a local processing site (see run_nunit.py): what
// the binding adds, its marshalling, buffers, delegates, exceptions and disposal.
using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.IO;
using System.Linq;
using System.Runtime.CompilerServices;
using System.Threading;
using System.Threading.Tasks;
using DataExchange;
using NUnit.Framework;

[TestFixture]
public class HandleTests
{
    static readonly string ShareRoot = Environment.GetEnvironmentVariable("DATAEXCHANGE_TEST_SHARE_ROOT");
    static readonly string SiteRoot = Environment.GetEnvironmentVariable("DATAEXCHANGE_TEST_SITE_ROOT");
    static readonly string Share = Path.Combine(ShareRoot, "measurement", "processing", "cvX", "precalibration");
    string temp;
    bool madeMeasurement;

    // Reports as they come, on the uploading thread; act runs inside each report.
    class Recorder : IProgress<UploadProgress>
    {
        public readonly List<UploadProgress> Reports = new List<UploadProgress>();
        public Action<UploadProgress> Act = _ => { };
        public void Report(UploadProgress value) { Reports.Add(value); Act(value); }
    }

    // The library's log lines as "<type> <line>", from whichever thread they come.
    class Lines : TraceListener
    {
        public readonly List<string> Seen = new List<string>();
        public override void TraceEvent(TraceEventCache cache, string source, TraceEventType type, int id, string message)
        {
            lock (Seen)
                Seen.Add(type + " " + message);
        }
        public override void Write(string message) { }
        public override void WriteLine(string message) { }
    }

    [SetUp]
    public void MakeFolders()
    {
        temp = Path.Combine(Path.GetTempPath(), "dotnetBinding-" + Guid.NewGuid());
        Directory.CreateDirectory(temp);
        madeMeasurement = !Directory.Exists(Path.Combine(ShareRoot, "measurement")); // removes only its own
        Directory.CreateDirectory(Share);
    }

    [TearDown]
    public void RemoveFolders()
    {
        Directory.Delete(temp, true);
        if (madeMeasurement)
            Directory.Delete(Path.Combine(ShareRoot, "measurement"), true);
    }

    static Handle Precalibration(Location location)
    {
        var handle = new Handle();
        handle["Device type"] = 0;
        handle["Data type"] = DataType.Precalibration;
        handle["Location"] = location;
        return handle;
    }

    // A folder of files of the given sizes, filled with bytes that deflate does not shrink much.
    string Folder(string name, params int[] sizes)
    {
        string folder = Path.Combine(temp, name);
        Directory.CreateDirectory(folder);
        var random = new Random(sizes.Length);
        for (int i = 0; i < sizes.Length; i++) {
            var bytes = new byte[sizes[i]];
            random.NextBytes(bytes);
            File.WriteAllBytes(Path.Combine(folder, "part" + i + ".bin"), bytes);
        }
        return folder;
    }

    [TestCase("Serial number", ulong.MaxValue, ulong.MaxValue, 1)]
    [TestCase("Location", Location.Server, 2u, 1)]
    [TestCase("Data type", DataType.LogFile, 6, 1)]
    [TestCase("Device type", (byte)4, 4, 1)]
    [TestCase("User", "Zoë Ångström ", "Zoë Ångström ", 400)] // beyond the first buffer
    public void ValuesCrossWithTheirCTypes(string name, object value, object expected, int repeat)
    {
        if (value is string) {
            value = string.Concat(Enumerable.Repeat((string)value, repeat));
            expected = value;
        }
        using (var handle = new Handle()) {
            handle[name] = value;
            Assert.AreEqual(expected, handle[name]);
            Assert.AreEqual(expected.GetType(), handle[name].GetType());
            Assert.IsNull(handle.LastWarning);
        }
    }

    static readonly Dictionary<string, Action<Handle>> Crops = new Dictionary<string, Action<Handle>> {
        { "option", h => h["Device type"] = 9 },
        { "threads", h => h.SetPackingThreads(40) },
        { "retries", h => h.SetRetries(25) },
    };

    [TestCase("option", "Option 'Device type' was cropped")]
    [TestCase("threads", "Packing threads are at most 32; 40 was cropped")]
    [TestCase("retries", "Retries are at most 20; 25 was cropped")]
    public void ACroppedValueIsAWarning(string call, string message)
    {
        using (var handle = new Handle()) {
            var raised = new List<string>();
            handle.Warning += (sender, e) => raised.Add(e.Message);
            Crops[call](handle);
            Assert.AreEqual(message, handle.LastWarning);
            Assert.AreEqual(new[] { message }, raised);
            handle["User"] = "";
            Assert.IsNull(handle.LastWarning);
        }
    }

    static readonly Dictionary<string, Action<Handle, string>> Faults = new Dictionary<string, Action<Handle, string>> {
        { "wrong type", (h, _) => h["User"] = 5 },
        { "no fit", (h, _) => h["Location"] = -1 },
        { "refused", (h, _) => h["Email address"] = "@" },
        { "null name", (h, _) => h.Get(null) },
        { "empty name", (h, _) => h.SetString("", "x") },
        { "unknown", (h, _) => h.Get("Colour") },
        { "null path", (h, _) => h.Upload(null) },
        { "empty path", (h, _) => h.Upload("") },
        { "missing", (h, temp) => h.Upload(Path.Combine(temp, "Kalibrierung_Ø5_łódź")) },
        { "empty folder", (h, temp) => h.Upload(temp) }, // refused: verified delivery is on
        { "no device", (h, temp) => { using (var other = new Handle()) other.Upload(temp); } },
        { "no spool", (h, _) => h.ListSpooled() },
    };

    [TestCase("wrong type", typeof(ArgumentException), null, null, null)]
    [TestCase("no fit", typeof(OverflowException), null, null, null)]
    [TestCase("refused", typeof(DataExchangeException), "dataExchangeSetStringOption", Result.WriteFailed, "Invalid email address: @\nOption 'Email address' cannot be written")]
    [TestCase("null name", typeof(DataExchangeException), "dataExchangeGetInt32Option", Result.InvalidArgument, "optName parameter is nullptr")]
    [TestCase("empty name", typeof(DataExchangeException), "dataExchangeSetStringOption", Result.InvalidArgument, "optName parameter is nullptr")]
    [TestCase("unknown", typeof(DataExchangeException), "dataExchangeGetInt32Option", Result.InvalidOption, "Option 'Colour' does not exist")]
    [TestCase("null path", typeof(DataExchangeException), "dataExchangeUploadData", Result.InvalidArgument, "Empty file or folder name provided")]
    [TestCase("empty path", typeof(DataExchangeException), "dataExchangeUploadData", Result.InvalidArgument, "Empty file or folder name provided")]
    [TestCase("missing", typeof(DataExchangeException), "dataExchangeUploadData", Result.ReadFailed, "File or folder {0}/Kalibrierung_Ø5_łódź does not exist")]
    [TestCase("empty folder", typeof(DataExchangeException), "dataExchangeUploadData", Result.DataHandlingFailed, "Folder '{0}' holds no files: nothing was sent")]
    [TestCase("no device", typeof(DataExchangeException), "dataExchangeUploadData", Result.HandlerConfigurationFailed, "Unhandled value for 'Data type'")] // its line feed is no line
    [TestCase("no spool", typeof(DataExchangeException), "dataExchangeListSpooled", Result.InvalidArgument, "No spool folder set")]
    public void FailuresThrowWithTheLibrarysResultAndMessages(string call, Type type, string function, Result? result, string error)
    {
        using (var handle = Precalibration(Location.SharedFolder)) {
            var thrown = Assert.Throws(type, () => Faults[call](handle, temp));
            var failure = thrown as DataExchangeException;
            if (failure == null)
                return;
            Assert.AreEqual(new object[] { function, result, string.Format(error, temp) },
                            new object[] { failure.Function, failure.Result, string.Join("\n", failure.Errors) });
            StringAssert.StartsWith(function + " returned " + result + " (" + (int)result + ")\n  ", failure.Message);
            Assert.IsEmpty(handle.LastErrors()); // read into the exception
        }
    }

    [Test]
    public void OptionsListTheirTypesAndValues()
    {
        using (var handle = new Handle()) {
            var options = handle.Options();
            Assert.AreEqual(new[] { "Data type", "Device type", "Email address", "Location", "Report", "Serial number", "User" },
                            options.Select(o => o.Name));
            var location = options[3];
            Assert.AreEqual(new object[] { OptionType.UInt32, OptionAccess.Readable | OptionAccess.Writable, 3u, 1u, 3u, 3u },
                            new[] { location.Type, location.Access, location.Current, location.Minimum, location.Maximum, location.Default });
            Assert.IsNotEmpty(location.Summary);
            Assert.IsNull(options[6].Minimum); // a string has no bounds
        }
    }

    [Test]
    public void TheAssemblyNeedsOnlyWhatEveryRuntimeHas()
    {
        var references = typeof(Handle).Assembly.GetReferencedAssemblies();
        CollectionAssert.IsSubsetOf(references.Select(r => r.Name + " " + r.Version),
                                    new[] { "mscorlib 4.0.0.0", "System 4.0.0.0", "System.Core 4.0.0.0" });
        StringAssert.IsMatch("^[0-9a-f]{40}$", Library.Sha1);
        StringAssert.StartsWith("v2.0.0 (", Library.Version);
    }

    [TestCase(Location.SharedFolder)]
    [TestCase(Location.Server)]
    public void UploadDeliversAndReportsProgress(Location location)
    {
        string folder = Folder("Kalibrierung_Ø5_łódź", 70000, 30000);
        var recorder = new Recorder();
        var lines = new Lines();
        Library.Trace.Switch.Level = SourceLevels.All;
        Library.Trace.Listeners.Add(lines);
        Delivery delivery;
        using (var handle = Precalibration(location))
            delivery = handle.Upload(folder, recorder);
        Library.Trace.Listeners.Remove(lines);
        CollectionAssert.IsSubsetOf(new[] { "Verbose Adding file part0.bin", "Verbose Adding file part1.bin" }, lines.Seen);
        Assert.AreEqual(location, delivery.Destination);
        StringAssert.EndsWith("precalibration_Kalibrierung_Ø5_łódź.zip", delivery.Name);
        if (location == Location.Server) {
            Assert.AreEqual(delivery.Name, delivery.StoredName);
            Assert.IsTrue(File.Exists(Path.Combine(SiteRoot, "storage", delivery.StoredName)));
        } else {
            Assert.AreEqual("", delivery.StoredName);
            Assert.IsTrue(File.Exists(Path.Combine(Share, delivery.Name)));
        }
        // Each report arrived in order on this thread, 64-bit counts intact.
        Assert.AreEqual(new UploadProgress(Stage.Packing, 100000, 100000), recorder.Reports.Last(r => r.Stage == Stage.Packing));
        Assert.AreEqual(location == Location.Server ? Stage.JobRequest : Stage.SharedFolder, recorder.Reports.Last().Stage);
    }

    [TestCase("cancel in a report", typeof(OperationCanceledException))]
    [TestCase("cancelled before", typeof(OperationCanceledException))]
    [TestCase("throw in a report", typeof(InvalidOperationException))]
    public void CancelAndHandlerFaultsEndTheUploadAndLeaveTheHandleUsable(string how, Type type)
    {
        string folder = Folder("cal7", 300000, 300000);
        var source = new CancellationTokenSource();
        var recorder = new Recorder();
        if (how == "cancelled before")
            source.Cancel();
        recorder.Act = report => { // packed, not yet delivered
            if (report.Stage == Stage.SharedFolder && how == "cancel in a report")
                source.Cancel();
            if (report.Stage == Stage.SharedFolder && how == "throw in a report")
                throw new InvalidOperationException("the handler failed");
        };
        var before = Directory.GetFiles(Share);
        using (var handle = Precalibration(Location.SharedFolder)) {
            var thrown = Assert.Throws(type, () => handle.Upload(folder, recorder, source.Token));
            var cancelled = thrown as OperationCanceledException;
            if (cancelled != null)
                Assert.AreEqual(source.Token, cancelled.CancellationToken);
            else
                StringAssert.Contains("CancelAndHandlerFaults", thrown.StackTrace); // its own trace kept
            Assert.AreEqual(how == "cancelled before" ? 0 : 1, recorder.Reports.Count(r => r.Stage == Stage.SharedFolder));
            CollectionAssert.AreEquivalent(before, Directory.GetFiles(Share));
            Assert.IsEmpty(handle.LastErrors());
            Assert.AreEqual(Location.SharedFolder, handle.Upload(folder).Destination);
        }
    }

    [Test]
    public void ACollectionInsideTheProgressHandlerKeepsTheCallbackAlive()
    {
        string folder = Folder("long", 8 << 20, 8 << 20);
        var recorder = new Recorder { Act = _ => { GC.Collect(); GC.WaitForPendingFinalizers(); GC.Collect(); } };
        using (var handle = Precalibration(Location.Server))
            Assert.AreEqual(Location.Server, handle.Upload(folder, recorder).Destination);
        Assert.Greater(recorder.Reports.Count, 4);
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    static WeakReference Forgotten()
    {
        var handle = new Handle();
        handle["User"] = "forgotten";
        return new WeakReference(handle);
    }

    [Test]
    public void AForgottenHandleIsClosedByTheFinalizer()
    {
        var forgotten = Enumerable.Range(0, 20).Select(_ => Forgotten()).ToList();
        GC.Collect();
        GC.WaitForPendingFinalizers();
        GC.Collect();
        Assert.IsFalse(forgotten.Any(reference => reference.IsAlive)); // nothing of the binding holds it
        using (var handle = new Handle())
            Assert.AreEqual("", handle["User"]);
    }

    [Test]
    public void TwoHandlesOnTwoThreads()
    {
        var folders = new[] { Folder("first", 200000), Folder("second", 200000) };
        var deliveries = folders.Select(folder => Task.Run(() => {
            using (var handle = Precalibration(Location.SharedFolder)) {
                handle["Serial number"] = (ulong)folder.Length;
                return handle.Upload(folder, new Recorder()).Name;
            }
        })).ToArray();
        Task.WaitAll(deliveries);
        CollectionAssert.IsSubsetOf(deliveries.Select(d => d.Result), Directory.GetFiles(Share).Select(Path.GetFileName));
    }

    [Test]
    public void ADisposedHandleThrowsObjectDisposedException()
    {
        var handle = new Handle();
        handle.Dispose();
        handle.Dispose();
        Assert.Throws<ObjectDisposedException>(() => { var _ = handle["User"]; });
        Assert.Throws<ObjectDisposedException>(() => handle.Upload(temp));
        Assert.Throws<ObjectDisposedException>(() => handle.SetRetries(1));
    }

    [Test]
    public void TheSpoolKeepsListsAndSendsWhatFailed()
    {
        string cmm = Path.Combine(ShareRoot, "measurement", "processing", "cvX", "cmm");
        if (Directory.Exists(cmm)) // left by an interrupted run: the first delivery must fail
            Directory.Delete(cmm, true);
        using (var handle = new Handle(spoolFolder: Path.Combine(temp, "Spool_ä"))) {
            handle["Device type"] = 0;
            handle["Data type"] = DataType.Cmm;
            handle["Location"] = Location.SharedFolder;
            var failed = Assert.Throws<DataExchangeException>(() => handle.Upload(Folder("cal7", 1000)));
            var item = handle.ListSpooled().Single();
            StringAssert.StartsWith("The packed item is kept in the spool as ", failed.Errors.Last());
            Assert.AreEqual(new object[] { "cmm_cal7.zip", new[] { Location.SharedFolder }, 1, failed.Errors.First() },
                            new object[] { item.PackedName, item.Destinations, item.Attempts, item.LastCause });
            var remains = Assert.Throws<SpoolException>(() => handle.SendSpooled());
            Assert.AreEqual(new[] { 0u, 1u }, new[] { remains.Delivered, remains.Remaining });
            Directory.CreateDirectory(cmm);
            Assert.AreEqual(1u, handle.SendSpooled(new Recorder()));
            Assert.IsEmpty(handle.ListSpooled());
        }
    }
}
