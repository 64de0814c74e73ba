using System;
using System.Collections.Generic;
using System.Linq;
using System.Runtime.ExceptionServices;
using System.Threading;

namespace DataExchange
{
    /// <summary>
    /// One handle of the dataExchange library: its options, its settings and its uploads.
    /// </summary>
    /// <remarks>
    /// Use a handle from one thread at a time; different handles may work on different threads.
    /// Dispose it when done; a handle that is never disposed is closed by the garbage collector.
    /// A failed call throws <see cref="DataExchangeException"/>. A value that the library stored
    /// clipped is no failure: the call returns, <see cref="LastWarning"/> holds the library's
    /// message and <see cref="Warning"/> is raised.
    /// </remarks>
    public sealed class Handle : IDisposable
    {
        private readonly NativeHandle native;
        private readonly Dictionary<string, OptionType> types = new Dictionary<string, OptionType>();
        // Registered once for the handle's whole life, so the library never calls a delegate the
        // collector has freed; it reports to whatever the running upload was given.
        private readonly Native.ProgressCallback relay;
        private IProgress<UploadProgress> progress;
        private CancellationToken token;
        private Exception progressFailure;
        private bool unicodePaths;

        /// <summary>Opens a handle. The defaults differ from the library's own where a host is
        /// better served: verified delivery on, packing on every core, paths of any characters,
        /// two retries of a server delivery that met a passing fault, the upload streamed through
        /// libcurl where the library finds it (else through Qt, without a word).</summary>
        /// <param name="verifiedDelivery">See <see cref="SetVerifiedDelivery"/>.</param>
        /// <param name="packingThreads">See <see cref="SetPackingThreads"/>; 0 is one per core.</param>
        /// <param name="unicodePaths">See <see cref="SetUnicodePaths"/>.</param>
        /// <param name="retries">See <see cref="SetRetries"/>.</param>
        /// <param name="spoolFolder">See <see cref="SetSpoolFolder"/>; null keeps nothing.</param>
        /// <param name="streaming">See <see cref="SetStreamingUpload"/>.</param>
        /// <exception cref="DataExchangeException">The library could not open a handle.</exception>
        /// <exception cref="DllNotFoundException">The library (dataExchange.dll,
        /// libdataExchange.so) or one it needs was not found.</exception>
        public Handle(bool verifiedDelivery = true, uint packingThreads = 0, bool unicodePaths = true,
                      uint retries = 2, string spoolFolder = null, bool streaming = true)
        {
            Library.TakeLogLines();
            var message = new byte[1024];
            native = Native.dataExchangeInit(IntPtr.Zero, new UIntPtr((uint)message.Length), message);
            if (native.IsInvalid) {
                native.Dispose();
                throw new DataExchangeException("dataExchangeInit", null, Lines(Native.Text(message)));
            }
            try {
                foreach (var option in Describe())
                    types[option.Item1] = option.Item5;
                relay = Relay;
                Check("dataExchangeSetProgressCallback",
                      Native.dataExchangeSetProgressCallback(native, relay, IntPtr.Zero));
                SetVerifiedDelivery(verifiedDelivery);
                SetPackingThreads(packingThreads);
                SetUnicodePaths(unicodePaths);
                SetRetries(retries);
                if (spoolFolder != null)
                    SetSpoolFolder(spoolFolder);
                if (streaming)
                    TryStreamingUpload();
            } catch {
                native.Dispose();
                throw;
            }
        }

        /// <summary>Closes the handle; later calls throw <see cref="ObjectDisposedException"/>.
        /// A call running on another thread finishes first.</summary>
        public void Dispose() => native.Dispose();

        /// <summary>The message of the last call when it stored a clipped value, else null.</summary>
        public string LastWarning { get; private set; }

        /// <summary>Raised when a call stored a clipped value (an option outside its bounds, too
        /// many packing threads or retries), on the calling thread.</summary>
        public event EventHandler<WarningEventArgs> Warning;

        /// <summary>The current value of an option, as <see cref="Get"/> and
        /// <see cref="Set"/> read and write it.</summary>
        public object this[string name]
        {
            get { return Get(name); }
            set { Set(name, value); }
        }

        /// <summary>Reads a value of an option: an int, uint, ulong or string after the option's
        /// C type. A name the library does not list is read as Int32, so the library names
        /// the fault.</summary>
        public object Get(string name, ValueKind which = ValueKind.Current)
        {
            return Read(name, which, TypeOf(name, null));
        }

        /// <summary>Writes the current value of an option. Numeric options take any integer or
        /// enum value that fits their C type (<see cref="OverflowException"/> otherwise), string
        /// options a string (<see cref="ArgumentException"/> otherwise).</summary>
        public void Set(string name, object value)
        {
            OptionType type = TypeOf(name, value);
            if (type == OptionType.String) {
                if (value != null && !(value is string))
                    throw new ArgumentException("Option '" + name + "' takes a string, not " + value.GetType());
                SetString(name, (string)value);
                return;
            }
            TypeCode code = value == null ? TypeCode.Empty : Convert.GetTypeCode(value);
            if (code < TypeCode.SByte || code > TypeCode.UInt64)
                throw new ArgumentException("Option '" + name + "' takes an integer, not " +
                                            (value == null ? "null" : value.GetType().ToString()));
            if (type == OptionType.UInt32)
                SetUInt32(name, Convert.ToUInt32(value));
            else if (type == OptionType.UInt64)
                SetUInt64(name, Convert.ToUInt64(value));
            else
                SetInt32(name, Convert.ToInt32(value));
        }

        /// <summary>Reads an option through the Int32 export.</summary>
        public int GetInt32(string name, ValueKind which = ValueKind.Current) =>
            GetNumber<int>("dataExchangeGetInt32Option", Native.dataExchangeGetInt32Option, name, which);

        /// <summary>Reads an option through the Uint32 export.</summary>
        public uint GetUInt32(string name, ValueKind which = ValueKind.Current) =>
            GetNumber<uint>("dataExchangeGetUint32Option", Native.dataExchangeGetUint32Option, name, which);

        /// <summary>Reads an option through the Uint64 export.</summary>
        public ulong GetUInt64(string name, ValueKind which = ValueKind.Current) =>
            GetNumber<ulong>("dataExchangeGetUint64Option", Native.dataExchangeGetUint64Option, name, which);

        /// <summary>Reads an option through the String export, whatever its length.</summary>
        public string GetString(string name, ValueKind which = ValueKind.Current)
        {
            NativeHandle handle = Live();
            byte[] key = Native.Utf8(name);
            return Native.Grow(256, (size, buffer) => Check("dataExchangeGetStringOption",
                Native.dataExchangeGetStringOption(handle, key, (uint)which, size, buffer)));
        }

        /// <summary>Writes an option through the Int32 export.</summary>
        public void SetInt32(string name, int value) =>
            Check("dataExchangeSetInt32Option", Native.dataExchangeSetInt32Option(Live(), Native.Utf8(name), value));

        /// <summary>Writes an option through the Uint32 export.</summary>
        public void SetUInt32(string name, uint value) =>
            Check("dataExchangeSetUint32Option", Native.dataExchangeSetUint32Option(Live(), Native.Utf8(name), value));

        /// <summary>Writes an option through the Uint64 export.</summary>
        public void SetUInt64(string name, ulong value) =>
            Check("dataExchangeSetUint64Option", Native.dataExchangeSetUint64Option(Live(), Native.Utf8(name), value));

        /// <summary>Writes an option through the String export (UTF-8).</summary>
        public void SetString(string name, string value) =>
            Check("dataExchangeSetStringOption",
                  Native.dataExchangeSetStringOption(Live(), Native.Utf8(name), Native.Utf8(value)));

        /// <summary>Every option in the library's order, with the values it has.</summary>
        public IReadOnlyList<OptionInfo> Options()
        {
            var list = new List<OptionInfo>();
            foreach (var row in Describe()) {
                var values = new object[4];
                for (int which = 0; which < values.Length; which++) {
                    try {
                        values[which] = Read(row.Item1, (ValueKind)which, row.Item5);
                    } catch (DataExchangeException) {
                        values[which] = null; // the option has no such value
                    }
                }
                list.Add(new OptionInfo(row.Item1, row.Item2, row.Item3, row.Item4, row.Item5, values));
            }
            return list;
        }

        /// <summary>The messages the last call left, one a line. Reading empties the list; the
        /// exceptions of this class have read them already.</summary>
        public IReadOnlyList<string> LastErrors()
        {
            // The list is gone once read, cut or not: one buffer large enough for any of them.
            var buffer = new byte[65536];
            Native.dataExchangeGetLastErrors(Live(), new UIntPtr((uint)buffer.Length), buffer);
            return Lines(Native.Text(buffer));
        }

        /// <summary>Packs a folder (a zip of its files) or copies a file, and delivers it as the
        /// "Location" option says. Blocks until done; run it on a worker thread to keep a window
        /// responsive.</summary>
        /// <param name="path">The file or folder.</param>
        /// <param name="progress">Told each stage's start, end and, in between, up to about ten
        /// reports a second, synchronously on the uploading thread (a
        /// <see cref="Progress{T}"/> passes them on to the thread that made it). An exception it
        /// throws cancels the upload and is thrown again by this method.</param>
        /// <param name="token">Cancels the upload at its next report: packing stops, a running
        /// request is aborted, and <see cref="OperationCanceledException"/> is thrown. An item
        /// already delivered when the cancel is seen is returned as delivered.</param>
        /// <exception cref="DataExchangeException">The upload failed; its Errors say why.</exception>
        public Delivery Upload(string path, IProgress<UploadProgress> progress = null,
                               CancellationToken token = default(CancellationToken))
        {
            var name = new byte[4096];
            uint used = 0;
            byte[] utf8 = unicodePaths ? Native.Utf8(path) : null;
            int result = Transfer("dataExchangeUploadData", progress, token, handle => unicodePaths
                ? Native.dataExchangeUploadData(handle, utf8, new UIntPtr((uint)name.Length), name, out used)
                : Native.dataExchangeUploadDataNarrow(handle, path, new UIntPtr((uint)name.Length), name,
                                                      out used));
            if (result == Native.BufferTooSmall) // delivered, but the name was cut
                throw new DataExchangeException("dataExchangeUploadData", Result.BufferTooSmall, LastErrors());
            return new Delivery(Native.Text(name), (Location)used, StoredName);
        }

        /// <summary>The name the server answered for the last upload, under which it stored the
        /// item; "" when the last upload got no answer.</summary>
        public string StoredName
        {
            get {
                NativeHandle handle = Live();
                return Native.Grow(256, (size, buffer) => Check("dataExchangeGetStoredName",
                    Native.dataExchangeGetStoredName(handle, size, buffer)));
            }
        }

        /// <summary>0 (the library's default) waits for the server forever; otherwise a request
        /// during which no bytes moved for that many seconds is aborted.</summary>
        public void SetStallTimeout(uint seconds) =>
            Check("dataExchangeSetStallTimeout", Native.dataExchangeSetStallTimeout(Live(), seconds));

        /// <summary>True: each upload removes its temporary folder when it returns. False (the
        /// library's default): packed items stay until the library is unloaded.</summary>
        public void SetRemovePackage(bool enable) =>
            Check("dataExchangeSetRemovePackage", Native.dataExchangeSetRemovePackage(Live(), Bit(enable)));

        /// <summary>True: requests go through the Proxy of config.xml.</summary>
        public void SetUseConfiguredProxy(bool enable) =>
            Check("dataExchangeSetUseConfiguredProxy", Native.dataExchangeSetUseConfiguredProxy(Live(), Bit(enable)));

        /// <summary>True: an upload counts only when the server names what it stored, and a
        /// failure says why. False: any answer of the server counts.</summary>
        public void SetVerifiedDelivery(bool enable) =>
            Check("dataExchangeSetVerifiedDelivery", Native.dataExchangeSetVerifiedDelivery(Live(), Bit(enable)));

        /// <summary>The threads that pack a folder: 0 one per core, 1 the calling thread alone,
        /// N up to 32 (more is a warning, and 32). The archive is the same whatever the count,
        /// except that a file holding most of a big folder is packed in blocks.</summary>
        public void SetPackingThreads(uint threads) =>
            Check("dataExchangeSetPackingThreads", Native.dataExchangeSetPackingThreads(Live(), threads));

        /// <summary>How a folder's files are compressed: level 1 (fastest) to 9 (smallest)
        /// deflates at that level, 0 stores every file (over 9 is a warning, and 9);
        /// storeIncompressible: a file whose first 128 KiB deflate cannot shrink is stored
        /// instead. Never called, every file is deflated at level 6. The archive is the same
        /// whatever the thread count.</summary>
        public void SetCompression(uint level, bool storeIncompressible) =>
            Check("dataExchangeSetCompression",
                  Native.dataExchangeSetCompression(Live(), level, Bit(storeIncompressible)));

        /// <summary>True: <see cref="Upload"/> passes the path as UTF-8, and on Windows the
        /// library reaches every name whatever its characters. False (the library's default):
        /// the path goes in the system's narrow encoding, on Windows the ANSI code page; a path
        /// outside it throws <see cref="ArgumentException"/>.</summary>
        public void SetUnicodePaths(bool enable)
        {
            Check("dataExchangeSetUnicodePaths", Native.dataExchangeSetUnicodePaths(Live(), Bit(enable)));
            unicodePaths = enable;
        }

        /// <summary>A server delivery that meets a passing fault (refused or reset connection,
        /// busy server, stall) is tried again up to <paramref name="retries"/> times (at most 20,
        /// more is a warning), first after <paramref name="firstDelayMilliseconds"/>, then
        /// twice as long each time or as long as the server asks. 0 makes one attempt.</summary>
        public void SetRetries(uint retries, uint firstDelayMilliseconds = 1000) =>
            Check("dataExchangeSetRetries", Native.dataExchangeSetRetries(Live(), retries, firstDelayMilliseconds));

        /// <summary>True: the upload's body goes out from one thread in large writes through
        /// libcurl, at the speed of a fast link; false (the library's default): through Qt. The
        /// server sees the same requests either way.</summary>
        /// <exception cref="DataExchangeException">NotAvailable: the library finds no libcurl.</exception>
        public void SetStreamingUpload(bool enable) =>
            Check("dataExchangeSetStreamingUpload", Native.dataExchangeSetStreamingUpload(Live(), Bit(enable)));

        // Where libcurl is missing the upload goes through Qt; the error line says nothing new.
        private void TryStreamingUpload()
        {
            if (Native.dataExchangeSetStreamingUpload(native, 1) == (int)Result.NotAvailable)
                LastErrors();
        }

        /// <summary>A folder (made when first needed) that keeps an item whose delivery still
        /// failed after the retries, for <see cref="SendSpooled"/>; null or "" keeps nothing.</summary>
        public void SetSpoolFolder(string folder) =>
            Check("dataExchangeSetSpoolFolder", Native.dataExchangeSetSpoolFolder(Live(), Native.Utf8(folder)));

        /// <summary>Delivers every item of the spool folder, oldest first, with verified delivery,
        /// and returns how many went. Progress and cancel work as in <see cref="Upload"/>.</summary>
        /// <exception cref="SpoolException">Items remain; one error line per item.</exception>
        public uint SendSpooled(IProgress<UploadProgress> progress = null,
                                CancellationToken token = default(CancellationToken))
        {
            uint delivered = 0, remaining = 0;
            try {
                Transfer("dataExchangeSendSpooled", progress, token,
                         handle => Native.dataExchangeSendSpooled(handle, out delivered, out remaining));
            } catch (DataExchangeException e) when (e.Result == Result.DataHandlingFailed) {
                throw new SpoolException(e.Function, Result.DataHandlingFailed, e.Errors, delivered, remaining);
            }
            return delivered;
        }

        /// <summary>The items of the spool folder, oldest first.</summary>
        public IReadOnlyList<SpooledItem> ListSpooled()
        {
            NativeHandle handle = Live();
            string text = Native.Grow(16384, (size, buffer) => Check("dataExchangeListSpooled",
                Native.dataExchangeListSpooled(handle, size, buffer)));
            return Lines(text).Select(line => new SpooledItem(line)).ToList();
        }

        private NativeHandle Live()
        {
            if (native.IsClosed)
                throw new ObjectDisposedException(nameof(Handle));
            return native;
        }

        private static uint Bit(bool enable) => enable ? 1u : 0u;

        private static IReadOnlyList<string> Lines(string text) =>
            text.Split('\n').Where(line => line.Length != 0).ToList();

        // Success and BufferTooSmall go back to the caller, a clipped value becomes a warning,
        // anything else an exception with the error list.
        private int Check(string function, int result)
        {
            LastWarning = null;
            if (result == Native.ValueCropped) {
                LastWarning = string.Join(" ", LastErrors());
                Warning?.Invoke(this, new WarningEventArgs(function, LastWarning));
            } else if (result != Native.Success && result != Native.BufferTooSmall) {
                throw new DataExchangeException(function, (Result)result, LastErrors());
            }
            return result;
        }

        private T GetNumber<T>(string function, Native.Getter<T> export, string name, ValueKind which)
        {
            T value;
            Check(function, export(Live(), Native.Utf8(name), (uint)which, out value));
            return value;
        }

        private OptionType TypeOf(string name, object value)
        {
            OptionType type;
            if (name != null && types.TryGetValue(name, out type))
                return type;
            return value is string ? OptionType.String : OptionType.Int32;
        }

        private object Read(string name, ValueKind which, OptionType type)
        {
            switch (type) {
            case OptionType.UInt32: return GetUInt32(name, which);
            case OptionType.UInt64: return GetUInt64(name, which);
            case OptionType.String: return GetString(name, which);
            default: return GetInt32(name, which);
            }
        }

        private List<Tuple<string, string, string, OptionAccess, OptionType>> Describe()
        {
            var rows = new List<Tuple<string, string, string, OptionAccess, OptionType>>();
            Exception failure = null;
            Native.OptionCallback collect = (name, summary, description, access, type, context) => {
                try {
                    rows.Add(Tuple.Create(Native.Text(name), Native.Text(summary), Native.Text(description),
                                          (OptionAccess)access, (OptionType)(int)type));
                } catch (Exception e) { // never unwinds into the library
                    failure = failure ?? e;
                }
            };
            Check("dataExchangeEnumerateOptions", Native.dataExchangeEnumerateOptions(Live(), collect, IntPtr.Zero));
            GC.KeepAlive(collect);
            if (failure != null)
                ExceptionDispatchInfo.Capture(failure).Throw();
            return rows;
        }

        // A call during which the library reports progress. What the progress handler threw is
        // thrown again once the library has returned; a cancel shows as the token's exception.
        private int Transfer(string function, IProgress<UploadProgress> progress, CancellationToken token,
                             Func<NativeHandle, int> call)
        {
            NativeHandle handle = Live();
            token.ThrowIfCancellationRequested();
            this.progress = progress;
            this.token = token;
            progressFailure = null;
            int result;
            try {
                result = call(handle);
            } finally {
                GC.KeepAlive(relay);
                this.progress = null;
                this.token = default(CancellationToken);
            }
            Exception failure = progressFailure;
            progressFailure = null;
            if (failure != null) {
                LastErrors(); // "Upload cancelled by the host": the handler's exception says more
                ExceptionDispatchInfo.Capture(failure).Throw();
            }
            if (result > 0 && token.IsCancellationRequested) {
                LastErrors();
                throw new OperationCanceledException(token);
            }
            return Check(function, result);
        }

        private int Relay(uint stage, ulong done, ulong total, IntPtr context)
        {
            try {
                progress?.Report(new UploadProgress((Stage)stage, done, total));
                return token.IsCancellationRequested ? 1 : 0;
            } catch (Exception e) { // never unwinds into the library: cancel, and throw it later
                progressFailure = progressFailure ?? e;
                return 1;
            }
        }
    }
}
