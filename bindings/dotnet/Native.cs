using System;
using System.Runtime.InteropServices;
using System.Text;
using Microsoft.Win32.SafeHandles;

namespace DataExchange
{
    // The library's exports, one to one. Texts go in as zero-terminated UTF-8 byte arrays and come
    // back in byte buffers: the .NET Framework marshaller knows no UTF-8 strings. Sizes are size_t
    // (UIntPtr), buffer sizes count the terminator.
    internal static class Native
    {
        // dataExchange.dll on Windows; Mono and .NET on Linux also try libdataExchange.so.
        private const string Library = "dataExchange";
        private const CallingConvention Cdecl = CallingConvention.Cdecl;

        internal const int Success = 0;
        internal const int ValueCropped = -20;
        internal const int BufferTooSmall = -21;

        [UnmanagedFunctionPointer(Cdecl)]
        internal delegate void OptionCallback(IntPtr name, IntPtr summary, IntPtr description,
                                              uint access, uint type, IntPtr context);

        [UnmanagedFunctionPointer(Cdecl)]
        internal delegate int ProgressCallback(uint stage, ulong done, ulong total, IntPtr context);

        internal delegate int Getter<T>(NativeHandle handle, byte[] name, uint which, out T value);

        [UnmanagedFunctionPointer(Cdecl)]
        internal delegate void LogCallback(uint level, IntPtr line, IntPtr context);

        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetLogCallback(LogCallback callback, IntPtr context);

        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern NativeHandle dataExchangeInit(IntPtr reserved, UIntPtr errorBufferSize,
                                                             [Out] byte[] errorBuffer);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeClose(ref IntPtr handle);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeGetLastErrors(NativeHandle handle, UIntPtr bufferSize,
                                                             [Out] byte[] buffer);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeVersion(UIntPtr bufferSize, [Out] byte[] buffer);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSha1(UIntPtr bufferSize, [Out] byte[] buffer);

        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeEnumerateOptions(NativeHandle handle,
                                                                OptionCallback callback, IntPtr context);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeGetInt32Option(NativeHandle handle, byte[] name,
                                                              uint which, out int value);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeGetUint32Option(NativeHandle handle, byte[] name,
                                                               uint which, out uint value);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeGetUint64Option(NativeHandle handle, byte[] name,
                                                               uint which, out ulong value);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeGetStringOption(NativeHandle handle, byte[] name,
                                                               uint which, UIntPtr bufferSize,
                                                               [Out] byte[] buffer);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetInt32Option(NativeHandle handle, byte[] name, int value);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetUint32Option(NativeHandle handle, byte[] name, uint value);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetUint64Option(NativeHandle handle, byte[] name, ulong value);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetStringOption(NativeHandle handle, byte[] name,
                                                               byte[] value);

        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeUploadData(NativeHandle handle, byte[] fileOrFolderName,
                                                          UIntPtr writtenFileNameSize,
                                                          [Out] byte[] writtenFileName,
                                                          out uint usedLocation);
        // The same export for a handle without Unicode paths: the path in the system's narrow
        // encoding, which the marshaller gives (the ANSI code page on Windows). A character the
        // code page lacks throws instead of turning into another name.
        [DllImport(Library, CallingConvention = Cdecl, EntryPoint = "dataExchangeUploadData",
                   CharSet = CharSet.Ansi, BestFitMapping = false, ThrowOnUnmappableChar = true)]
        internal static extern int dataExchangeUploadDataNarrow(NativeHandle handle,
                                                                string fileOrFolderName,
                                                                UIntPtr writtenFileNameSize,
                                                                [Out] byte[] writtenFileName,
                                                                out uint usedLocation);

        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetProgressCallback(NativeHandle handle,
                                                                   ProgressCallback callback,
                                                                   IntPtr context);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetStallTimeout(NativeHandle handle, uint seconds);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetRemovePackage(NativeHandle handle, uint enable);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetUseConfiguredProxy(NativeHandle handle, uint enable);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetVerifiedDelivery(NativeHandle handle, uint enable);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeGetStoredName(NativeHandle handle, UIntPtr bufferSize,
                                                             [Out] byte[] buffer);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetPackingThreads(NativeHandle handle, uint threads);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetCompression(NativeHandle handle, uint level,
                                                              uint storeIncompressible);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetUnicodePaths(NativeHandle handle, uint enable);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetRetries(NativeHandle handle, uint retries,
                                                          uint firstDelayMilliseconds);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetStreamingUpload(NativeHandle handle, uint enable);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSetSpoolFolder(NativeHandle handle, byte[] folder);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeSendSpooled(NativeHandle handle, out uint delivered,
                                                           out uint remaining);
        [DllImport(Library, CallingConvention = Cdecl)]
        internal static extern int dataExchangeListSpooled(NativeHandle handle, UIntPtr bufferSize,
                                                           [Out] byte[] buffer);

        // null stays a null pointer: the library answers it with its own result and message.
        internal static byte[] Utf8(string text)
        {
            if (text == null)
                return null;
            var bytes = new byte[Encoding.UTF8.GetByteCount(text) + 1];
            Encoding.UTF8.GetBytes(text, 0, text.Length, bytes, 0);
            return bytes;
        }

        // Up to the first zero, or the whole buffer when a cut text has none.
        internal static string Text(byte[] buffer)
        {
            int length = Array.IndexOf(buffer, (byte)0);
            return Encoding.UTF8.GetString(buffer, 0, length < 0 ? buffer.Length : length);
        }

        internal static string Text(IntPtr text)
        {
            if (text == IntPtr.Zero)
                return "";
            int length = 0;
            while (Marshal.ReadByte(text, length) != 0)
                length++;
            var bytes = new byte[length];
            Marshal.Copy(text, bytes, 0, length);
            return Encoding.UTF8.GetString(bytes);
        }

        // Calls read with a buffer four times larger until the text fits: each call reads the
        // text anew, so a text that grew in between is still read whole.
        internal static string Grow(int size, Func<UIntPtr, byte[], int> read)
        {
            while (true) {
                var buffer = new byte[size];
                if (read(new UIntPtr((uint)size), buffer) != BufferTooSmall)
                    return Text(buffer);
                size = checked(size * 4);
            }
        }
    }

    // The native handle: closed exactly once, by Dispose or else by the finalizer, and never while
    // a call that the marshaller is making with it still runs.
    internal sealed class NativeHandle : SafeHandleZeroOrMinusOneIsInvalid
    {
        private NativeHandle() : base(true) { }

        protected override bool ReleaseHandle()
        {
            IntPtr pointer = handle;
            return Native.dataExchangeClose(ref pointer) == Native.Success;
        }
    }
}
